// SPDX-License-Identifier: Apache-2.0
// What a loaded library imports: the slots through which it calls functions of other libraries.
// Redirecting a slot changes this library's calls alone, those of dlsym and pthread_create
// included.
#pragma once

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

namespace korvane::test {

class Imports {
public:
    /// @param library  end of its path
    explicit Imports(const char* library) : mLibrary(library) { dl_iterate_phdr(&visit, this); }

    const std::map<std::string, void**>& slots() const { return mSlots; }

    /// @return false when the library does not import the symbol
    bool redirect(const std::string& symbol, void* function) {
        const auto found = mSlots.find(symbol);
        if (found == mSlots.end()) {
            return false;
        }
        // The linker makes some slots read-only once it has filled them.
        const auto page = static_cast<uintptr_t>(getpagesize());
        auto* const start =
            reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(found->second) / page * page);
        mprotect(start, page, PROT_READ | PROT_WRITE);
        *found->second = function;
        return true;
    }

private:
    static int visit(dl_phdr_info* object, size_t /*size*/, void* self) {
        auto& imports = *static_cast<Imports*>(self);
        const std::string path = object->dlpi_name;
        const size_t length = imports.mLibrary.size();
        if (path.size() < length || path.compare(path.size() - length, length, imports.mLibrary)) {
            return 0;
        }
        std::map<ElfW(Sxword), ElfW(Addr)> dynamic;
        for (int i = 0; i < object->dlpi_phnum; ++i) {
            const ElfW(Phdr)& part = object->dlpi_phdr[i];
            if (part.p_type != PT_DYNAMIC) {
                continue;
            }
            const auto* entry = reinterpret_cast<ElfW(Dyn)*>(object->dlpi_addr + part.p_vaddr);
            for (; entry->d_tag != DT_NULL; ++entry) {
                dynamic[entry->d_tag] = entry->d_un.d_ptr;
            }
        }
        const auto* symbols = reinterpret_cast<ElfW(Sym)*>(dynamic[DT_SYMTAB]);
        const auto* names = reinterpret_cast<const char*>(dynamic[DT_STRTAB]);
        const auto add = [&](ElfW(Addr) table, ElfW(Addr) bytes) {
            const auto* relocation = reinterpret_cast<ElfW(Rela)*>(table);
            const auto* const end = reinterpret_cast<ElfW(Rela)*>(table + bytes);
            for (; relocation != end; ++relocation) {
                const ElfW(Sym)& symbol = symbols[ELF64_R_SYM(relocation->r_info)];
                if (symbol.st_shndx == SHN_UNDEF && symbol.st_name != 0) {
                    imports.mSlots[names + symbol.st_name] =
                        reinterpret_cast<void**>(object->dlpi_addr + relocation->r_offset);
                }
            }
        };
        add(dynamic[DT_RELA], dynamic[DT_RELASZ]);
        add(dynamic[DT_JMPREL], dynamic[DT_PLTRELSZ]);
        return 1;
    }

    const std::string mLibrary;
    std::map<std::string, void**> mSlots;
};

}  // namespace korvane::test
