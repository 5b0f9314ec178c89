// VxCamLogSetSink on a device, for tests, fuzzers and benchmarks: liblog hands every message to the
// logger set here, which passes it on to the sink.

#include <VxCamLogSink.h>

#include <android/log.h>

#include <atomic>

namespace {

std::atomic<VxCamLogSinkFn> gSink{nullptr};

void Forward(const struct __android_log_message* message) {
    VxCamLogSinkFn sink = gSink.load(std::memory_order_acquire);
    if (sink == nullptr || message == nullptr) return;
    const struct VxCamLogMessage line = {message->priority,
                                         message->tag != nullptr ? message->tag : "",
                                         message->message != nullptr ? message->message : ""};
    sink(&line);
}

}  // namespace

extern "C" void VxCamLogSetSink(VxCamLogSinkFn sink) {
    gSink.store(sink, std::memory_order_release);
    __android_log_set_logger(sink != nullptr ? Forward : __android_log_logd_logger);
}
