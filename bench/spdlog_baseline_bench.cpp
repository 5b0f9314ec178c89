// spdlog's side of bench/VxCamOfflineLogger_bench.cpp: the same 128-byte line through spdlog's
// synchronous and asynchronous file loggers, and the same message formatted by spdlog's default
// pattern. Linked into that program by the host build; a device has no spdlog to compare with.
#include <unistd.h>

#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "OfflineLoggerBench.h"
#include "VxCamDebug.h"

namespace {

using vxcambench::g_context;
using vxcambench::kCaptureLines;
using vxcambench::kLineLength;
using vxcambench::Message;
using vxcambench::ScratchFile;

void BM_SpdlogSync(benchmark::State& state) {
    const std::string path = ScratchFile("spdlog_sync.txt");
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(path, true);
    spdlog::logger logger("sync", sink);
    logger.set_pattern("%v");
    // spdlog ends the line itself.
    const spdlog::string_view_t text(g_context.line, kLineLength - 1);
    for (auto _ : state) logger.info(text);
    logger.flush();
    unlink(path.c_str());
    state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogAsync(benchmark::State& state) {
    const std::string path = ScratchFile("spdlog_async.txt");
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
    auto logger = std::make_shared<spdlog::async_logger>("async", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_pattern("%v");
    const spdlog::string_view_t text(g_context.line, kLineLength - 1);
    for (auto _ : state) logger->info(text);
    logger->flush();
    logger.reset();
    pool.reset();  // joins the worker
    unlink(path.c_str());
    state.SetItemsProcessed(state.iterations());
}

void BM_SpdlogDefaultPattern(benchmark::State& state) {
    const std::string path = ScratchFile("spdlog_default.txt");
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_st>(path, true);
    spdlog::logger logger("frame", sink);  // default pattern: "[%Y-%m-%d %H:%M:%S.%e] [%n] [%l] %v"
    Message message;
    benchmark::DoNotOptimize(message);
    for (auto _ : state) {
        // The library's frame, word for word: label, group tag, file, line, function, message.
        logger.info("[INFO    ][CORE   ] {}:" VXCAM_LOG_STRINGIFY(__LINE__) " {}() request {} "
                    "stream {} format {} {}x{}",
                    VxCam::Log::GetFileName(VXCAM_LOG_SOURCE), __func__, message.request,
                    message.stream, message.format, message.width, message.height);
    }
    logger.flush();
    unlink(path.c_str());
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_SpdlogSync)->Iterations(kCaptureLines)->UseRealTime();
BENCHMARK(BM_SpdlogAsync)->Iterations(kCaptureLines)->UseRealTime();
BENCHMARK(BM_SpdlogDefaultPattern)->UseRealTime();

}  // namespace
