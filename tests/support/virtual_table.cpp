// SPDX-FileCopyrightText: 2026 The Sorvane signals authors
// SPDX-License-Identifier: Apache-2.0

#include "support/virtual_table.h"

#include <link.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <ios>
#include <vector>

namespace {

// By how much the program lies higher than it was linked for. It is the first of the modules.
std::uintptr_t loadBias() {
    std::uintptr_t bias = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* program, std::size_t, void* result) {
            *static_cast<std::uintptr_t*>(result) = program->dlpi_addr;
            return 1;
        },
        &bias);
    return bias;
}

template <typename Element>
std::vector<Element> readElements(std::ifstream& file, std::uint64_t offset, std::size_t count) {
    std::vector<Element> elements(count);
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(reinterpret_cast<char*>(elements.data()),
              static_cast<std::streamsize>(count * sizeof(Element)));
    return elements;
}

// The size of the symbol at an address of the program, or 0. The symbols of its file are all; the
// dynamic ones are without those that the static library keeps to itself.
std::size_t sizeOfSymbolAt(std::uintptr_t address) {
    std::ifstream file("/proc/self/exe", std::ios::binary);
    const auto header = readElements<ElfW(Ehdr)>(file, 0, 1).front();
    for (const auto& section : readElements<ElfW(Shdr)>(file, header.e_shoff, header.e_shnum)) {
        if (section.sh_type != SHT_SYMTAB) {
            continue;
        }
        const std::size_t count = section.sh_size / sizeof(ElfW(Sym));
        for (const auto& symbol : readElements<ElfW(Sym)>(file, section.sh_offset, count)) {
            if (symbol.st_size != 0 && symbol.st_value + loadBias() == address) {
                return symbol.st_size;
            }
        }
    }
    return 0;
}

}  // namespace

VirtualTable::VirtualTable(const Sorvane::SVObject& object) : m_functions(nullptr) {
    std::memcpy(&m_functions, static_cast<const void*>(&object), sizeof(m_functions));
}

std::size_t VirtualTable::size() const {
    // Before the functions stand the offset of the whole object and its type information.
    constexpr std::size_t wordsBefore = 2;
    const std::size_t size =
        sizeOfSymbolAt(reinterpret_cast<std::uintptr_t>(m_functions - wordsBefore));
    return size == 0 ? 0 : size / sizeof(void*) - wordsBefore;
}
