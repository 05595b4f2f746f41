// Reading fsck.fat -n reports after a power cut: which of the states it finds an interrupted write
// may leave behind, and which are damage.
#pragma once

#include <cstdio>
#include <sstream>
#include <string>

// What a cut may leave: lost clusters (reclaimed), a chain one cluster longer than the size (the
// interrupted append's cluster, cut off again), and FSInfo's count marked unknown. Anything else in
// fsck.fat's report is damage. `data_file` is the file being appended to, as fsck.fat names it; only
// its chain may be longer than its size. (A move cut between its two entry writes loses the file's
// name: its clusters are lost clusters; that is the price of never having two entries on one chain.)
inline bool only_benign(const std::string& report, const std::string& data_file = "/DATA.CSV") {
    std::istringstream in(report);
    std::string line;
    long reclaimed = 0;
    long summary_off = 0;
    long size = -1;
    while (std::getline(in, line)) {
        long a;
        long b;
        // A chain longer than the size is cut back to the chain the size needs: no data goes.
        if (sscanf(line.c_str(), "  File size is %ld bytes, cluster chain length is > %ld", &a, &b) == 2) {
            size = a;
            continue;
        }
        if (sscanf(line.c_str(), "  Truncating file to %ld bytes", &a) == 1) {
            if (a != size) {
                return false;
            }
            continue;
        }
        if (sscanf(line.c_str(), "Reclaimed %ld unused cluster", &a) == 1) {
            reclaimed = a;
            continue;
        }
        // With lost clusters a correct FSInfo count is off by exactly their number.
        if (sscanf(line.c_str(), "Free cluster summary wrong (%ld vs. really %ld)", &a, &b) == 2) {
            summary_off = b - a;
            continue;
        }
        const char* fine[] = {"fsck.fat", "Leaving filesystem unchanged", "Auto-correcting",
                              "Free cluster summary uninitialized", " files, "};
        bool ok = line.empty() || line.find(data_file) != std::string::npos;
        for (const char* f : fine) {
            ok = ok || line.find(f) != std::string::npos;
        }
        if (!ok) {
            return false;
        }
    }
    return summary_off == 0 || summary_off == reclaimed;
}
