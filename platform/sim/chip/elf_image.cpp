// Reading the target ELF: program headers for what goes into flash and RAM, the symbol table for the
// addresses the simulator needs.
#include "elf_image.h"

#include <cstring>
#include <elf.h>
#include <fstream>
#include <iterator>

namespace sim::chip {

namespace {

template <typename T>
bool read_at(const std::vector<uint8_t>& file, uint64_t offset, T& out) {
    if (offset > file.size() || file.size() - offset < sizeof(T)) {
        return false;
    }
    std::memcpy(&out, file.data() + offset, sizeof(T));
    return true;
}

bool check_header(const Elf32_Ehdr& eh, std::string& error) {
    if (std::memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0) {
        error = "not an ELF file";
        return false;
    }
    if (eh.e_ident[EI_CLASS] != ELFCLASS32 || eh.e_ident[EI_DATA] != ELFDATA2LSB || eh.e_machine != EM_ARM) {
        error = "not a 32-bit little-endian ARM image";
        return false;
    }
    if (eh.e_type != ET_EXEC) {
        error = "not an executable image";
        return false;
    }
    return true;
}

bool read_segments(const std::vector<uint8_t>& file, const Elf32_Ehdr& eh, ElfImage& image,
                   std::string& error) {
    for (uint32_t i = 0; i < eh.e_phnum; ++i) {
        Elf32_Phdr ph{};
        if (!read_at(file, eh.e_phoff + static_cast<uint64_t>(i) * eh.e_phentsize, ph)) {
            error = "truncated program header table";
            return false;
        }
        if (ph.p_type != PT_LOAD || ph.p_filesz == 0) {
            continue;
        }
        if (ph.p_offset > file.size() || file.size() - ph.p_offset < ph.p_filesz) {
            error = "a segment lies beyond the end of the file";
            return false;
        }
        Segment s;
        s.address = ph.p_paddr;
        s.bytes.assign(file.begin() + ph.p_offset, file.begin() + ph.p_offset + ph.p_filesz);
        image.segments.push_back(std::move(s));
    }
    if (image.segments.empty()) {
        error = "no loadable segment";
        return false;
    }
    return true;
}

void read_symbols(const std::vector<uint8_t>& file, const Elf32_Ehdr& eh, ElfImage& image) {
    for (uint32_t i = 0; i < eh.e_shnum; ++i) {
        Elf32_Shdr sh{};
        if (!read_at(file, eh.e_shoff + static_cast<uint64_t>(i) * eh.e_shentsize, sh) ||
            sh.sh_type != SHT_SYMTAB) {
            continue;
        }
        Elf32_Shdr strtab{};
        if (!read_at(file, eh.e_shoff + static_cast<uint64_t>(sh.sh_link) * eh.e_shentsize, strtab)) {
            continue;
        }
        uint32_t count = sh.sh_entsize ? sh.sh_size / sh.sh_entsize : 0;
        for (uint32_t k = 0; k < count; ++k) {
            Elf32_Sym sym{};
            if (!read_at(file, sh.sh_offset + static_cast<uint64_t>(k) * sh.sh_entsize, sym) ||
                sym.st_name == 0) {
                continue;
            }
            uint64_t at = static_cast<uint64_t>(strtab.sh_offset) + sym.st_name;
            if (at >= file.size()) {
                continue;
            }
            const char* name = reinterpret_cast<const char*>(file.data() + at);
            size_t len = strnlen(name, file.size() - at);
            image.symbols.push_back(Symbol{std::string(name, len), sym.st_value, sym.st_size});
        }
    }
}

} // namespace

bool load_elf(const std::string& path, ElfImage& image, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Elf32_Ehdr eh{};
    if (!read_at(file, 0, eh)) {
        error = "not an ELF file";
        return false;
    }
    if (!check_header(eh, error)) {
        return false;
    }
    image = ElfImage{};
    image.path = path;
    image.entry = eh.e_entry;
    if (!read_segments(file, eh, image, error)) {
        return false;
    }
    read_symbols(file, eh, image);
    return true;
}

bool find_symbol(const ElfImage& image, const std::string& name, uint32_t& value) {
    for (const Symbol& s : image.symbols) {
        if (s.name == name) {
            value = s.value;
            return true;
        }
    }
    return false;
}

bool find_symbol_containing(const ElfImage& image, const std::string& part, uint32_t& value) {
    for (const Symbol& s : image.symbols) {
        if (s.name.find(part) != std::string::npos) {
            value = s.value;
            return true;
        }
    }
    return false;
}

} // namespace sim::chip
