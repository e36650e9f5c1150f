#include "support/virtual_table.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>

VirtualTable::VirtualTable(const Sorvane::SVObject& object) : m_functions(nullptr) {
    std::memcpy(&m_functions, static_cast<const void*>(&object), sizeof(m_functions));
}

std::size_t VirtualTable::size() const {
    // Before the functions stand the offset of the whole object and its type information.
    constexpr std::size_t wordsBefore = 2;
    Dl_info place = {};
    void* found = nullptr;
    if (dladdr1(m_functions, &place, &found, RTLD_DL_SYMENT) == 0 || found == nullptr) {
        return 0;
    }
    const auto* const symbol = static_cast<const ElfW(Sym)*>(found);
    return symbol->st_size / sizeof(void*) - wordsBefore;
}
