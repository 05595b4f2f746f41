// Reading hxc3-sim --stats files in the benchmarks: one row of fields per power-on period.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

// The rows after the header: start_utc, wake, awake_ms, sd_reads, sd_writes, tx_bytes, stack_bytes
// (empty in the host build), uvs_ms, lamp_ms.
inline std::vector<std::vector<std::string>> read_stats_rows(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line); // header
    while (std::getline(in, line)) {
        std::vector<std::string> fields;
        std::stringstream ss(line);
        std::string field;
        while (std::getline(ss, field, ',')) {
            fields.push_back(field);
        }
        rows.push_back(fields);
    }
    return rows;
}
