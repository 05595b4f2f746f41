// Reading fsck.fat -n reports after a power cut: which of the states it finds an interrupted write
// may leave behind, and which are damage.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <sstream>
#include <string>

// What a cut may leave: lost clusters (reclaimed), a chain one cluster longer than the size (the
// interrupted append's cluster, cut off again) on one of the files being appended to, FSInfo's count
// marked unknown, and, on a card with two FATs, copies that differ where the cut fell between their
// writes (fsck.fat then goes by the first FAT, which is written first, and what it finds there must
// itself be benign). Anything else in fsck.fat's report is damage. The files are named as fsck.fat
// names them ("/DATA.CSV"). (A move cut between its two entry writes loses the file's name: its
// clusters are lost clusters; that is the price of never having two entries on one chain.)
inline bool only_benign(const std::string& report,
                        std::initializer_list<const char*> appended = {"/DATA.CSV"}) {
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
        const char* fine[] = {"fsck.fat",          "Leaving filesystem unchanged",
                              "Auto-correcting",   "Free cluster summary uninitialized",
                              " files, ",          "FATs differ but appear to be intact.",
                              "  Using first FAT."};
        bool ok = line.empty();
        for (const char* f : fine) {
            ok = ok || line.find(f) != std::string::npos;
        }
        for (const char* file : appended) {
            ok = ok || line == file;
        }
        if (!ok) {
            return false;
        }
    }
    return summary_off == 0 || summary_off == reclaimed;
}
