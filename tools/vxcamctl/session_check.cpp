// vxcamctl session's check: reads the session files back and accounts for every line logged,
// landed, dropped while a camera close was under way, or lost.
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Session.h"

namespace vxcamctl::session {

std::set<std::string> SessionFolders(const std::string& camera) {
    std::set<std::string> folders;
    DIR* dir = opendir(camera.c_str());
    if (dir == nullptr) return folders;
    while (dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, "VxCam_OfflineLog_", 17) == 0) folders.insert(entry->d_name);
    }
    closedir(dir);
    return folders;
}

void ReadBack(const std::string& camera, const std::set<std::string>& folders, Landed* landed) {
    for (const std::string& folder : folders) {
        const std::string path = camera + "/" + folder;
        DIR* dir = opendir(path.c_str());
        if (dir == nullptr) continue;
        std::vector<std::string> names;
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        }
        closedir(dir);
        std::sort(names.begin(), names.end());
        for (const std::string& name : names) {
            const std::string file = path + "/" + name;
            FILE* in = fopen(file.c_str(), "r");
            if (in == nullptr) continue;
            unsigned long long size = 0;
            std::map<std::pair<unsigned, unsigned>, long> last;
            char* line = nullptr;
            size_t capacity = 0;
            ssize_t length;
            while ((length = getline(&line, &capacity, in)) > 0) {
                size += static_cast<unsigned long long>(length);
                const char* marker = strstr(line, kMarker);
                unsigned session = 0, thread = 0;
                unsigned long seq = 0;
                if (marker == nullptr ||
                    sscanf(marker + strlen(kMarker), "%u %u %lu", &session, &thread, &seq) != 3 ||
                    seq > kMaxLines) {
                    ++landed->foreign;
                    continue;
                }
                const auto key = std::make_pair(session, thread);
                auto previous = last.find(key);
                if (previous != last.end() && static_cast<long>(seq) <= previous->second) {
                    ++landed->outOfOrder;
                }
                last[key] = static_cast<long>(seq);
                std::vector<bool>& bits = landed->seqs[key];
                if (seq >= bits.size()) bits.resize(seq + 1);
                if (bits[seq]) ++landed->duplicates;
                bits[seq] = true;
            }
            free(line);
            fclose(in);
            landed->bytes += size;
            landed->files.emplace_back(folder + "/" + name, size);
        }
    }
}

Tally Account(const Run& run, Landed* landed, std::vector<ThreadTally>* rows) {
    Tally tally;
    for (unsigned s = 0; s < run.records.size(); ++s) {
        for (unsigned t = 0; t < run.records[s].size(); ++t) {
            const ThreadRecord& record = run.records[s][t];
            const std::vector<bool>& seqs = landed->seqs[{run.firstSession + s, t}];
            unsigned long unique = 0, accepted = 0, lost = 0;
            for (unsigned long seq = 0; seq < record.logged; ++seq) {
                if (seq < seqs.size() && seqs[seq]) {
                    ++unique;
                    continue;
                }
                if (std::binary_search(record.mayDrop.begin(), record.mayDrop.end(), seq)) {
                    ++accepted;
                } else {
                    ++lost;
                }
            }
            if (rows != nullptr) {
                rows->push_back({run.firstSession + s, t, record.logged, unique, accepted, lost});
            }
            tally.logged += record.logged;
            tally.landed += unique;
            tally.accepted += accepted;
            tally.lost += lost;
        }
    }
    tally.duplicates = landed->duplicates;
    return tally;
}

void PrintThreadTallies(const std::vector<ThreadTally>& rows) {
    printf("\n%-8s %-7s %10s %10s %16s %8s\n", "session", "thread", "logged", "landed",
           "dropped(close)", "lost");
    for (const ThreadTally& row : rows) {
        printf("%-8u %-7u %10lu %10lu %16lu %8lu\n", row.session, row.thread, row.logged,
               row.landed, row.accepted, row.lost);
    }
}

void PrintComplaints(const Library& library, const std::string& camera, const Tally& tally) {
    if (library.countsSkips) {
        const LibraryComplaints& complaints = LibraryComplaints::Get();
        const std::vector<LibraryComplaints::Entry> entries = complaints.Entries();
        if (!entries.empty()) {
            printf("\nthe library's errors and warnings (%lu lines):\n", complaints.Total());
            unsigned long listed = 0;
            for (const LibraryComplaints::Entry& entry : entries) {
                printf("%8lu x %c %s\n", entry.count, entry.level, entry.text.c_str());
                listed += entry.count;
            }
            if (listed < complaints.Total()) {
                printf("%8lu x   of other texts\n", complaints.Total() - listed);
            }
        }
    }
    if (tally.lost != 0) {
        std::string probe = camera + "/.vxcamctl-probe-XXXXXX";
        if (mkdtemp(&probe[0]) == nullptr) {
            printf("this process cannot make a folder in %s either: %s\n", camera.c_str(),
                   strerror(errno));
        } else {
            rmdir(probe.c_str());
        }
    }
}

bool Clean(const Library& library, const Tally& tally, const Landed& landed,
           unsigned long skipReports) {
    return tally.lost == 0 && tally.duplicates == 0 && landed.outOfOrder == 0 &&
           (!library.countsSkips || skipReports == tally.accepted);
}

bool PrintTotals(const Library& library, const Tally& tally, const Landed& landed,
                 unsigned long skipReports) {
    printf("\ntotal: logged %lu, landed %lu, dropped during a close %lu (accepted), lost %lu, "
           "duplicated %lu, out of order %lu, foreign lines %lu\n",
           tally.logged, tally.landed, tally.accepted, tally.lost, tally.duplicates,
           landed.outOfOrder, landed.foreign);
    if (library.countsSkips) {
        printf("lines the library reported as skipped during a close: %lu\n", skipReports);
    }
    const bool clean = Clean(library, tally, landed, skipReports);
    printf("%s\n", clean ? "result: no loss" : "result: LINES LOST OR DAMAGED");
    return clean;
}

void RemoveFolders(const std::string& camera, const std::set<std::string>& folders) {
    for (const std::string& folder : folders) {
        const std::string path = camera + "/" + folder;
        if (DIR* dir = opendir(path.c_str())) {
            while (dirent* entry = readdir(dir)) {
                if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                    unlinkat(dirfd(dir), entry->d_name, 0);
                }
            }
            closedir(dir);
        }
        if (rmdir(path.c_str()) != 0) {
            printf("note: cannot remove %s: %s\n", path.c_str(), strerror(errno));
        }
    }
}

}  // namespace vxcamctl::session
