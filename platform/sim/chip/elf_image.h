// The target image as the emulated chip loads it: the ELF file's loadable segments at their
// physical (load) addresses, as a flash programmer writes them, and its symbol table, through which
// the simulator finds the stack limits and the delay loop, and tests call functions of the image.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim::chip {

struct Segment {
    uint32_t address; // physical (load) address
    std::vector<uint8_t> bytes;
};

struct Symbol {
    std::string name;
    uint32_t value;
    uint32_t size;
};

struct ElfImage {
    std::string path;
    uint32_t entry = 0;
    std::vector<Segment> segments;
    std::vector<Symbol> symbols;
};

// Reads a 32-bit little-endian ARM executable. False with a reason when it is not one.
bool load_elf(const std::string& path, ElfImage& image, std::string& error);

// The value of a symbol by exact name; false when the image has none.
bool find_symbol(const ElfImage& image, const std::string& name, uint32_t& value);
// The first symbol whose name contains `part` (for function-local statics, whose names are mangled).
bool find_symbol_containing(const ElfImage& image, const std::string& part, uint32_t& value);

} // namespace sim::chip
