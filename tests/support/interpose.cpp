#include "support/interpose.h"

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

namespace osal_test {
namespace {

struct Imports {
    const Elf64_Rela* calls = nullptr;
    std::size_t call_bytes = 0;
    const Elf64_Rela* data = nullptr;
    std::size_t data_bytes = 0;
    const Elf64_Sym* symbols = nullptr;
    const char* names = nullptr;
};

Imports imports_of(const link_map* map) {
    Imports imports;
    for (const Elf64_Dyn* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
        const auto address = entry->d_un.d_ptr;
        switch (entry->d_tag) {
            case DT_JMPREL:
                imports.calls = reinterpret_cast<const Elf64_Rela*>(address);
                break;
            case DT_PLTRELSZ:
                imports.call_bytes = entry->d_un.d_val;
                break;
            case DT_RELA:
                imports.data = reinterpret_cast<const Elf64_Rela*>(address);
                break;
            case DT_RELASZ:
                imports.data_bytes = entry->d_un.d_val;
                break;
            case DT_SYMTAB:
                imports.symbols = reinterpret_cast<const Elf64_Sym*>(address);
                break;
            case DT_STRTAB:
                imports.names = reinterpret_cast<const char*>(address);
                break;
            default:
                break;
        }
    }
    return imports;
}

void collect(const link_map* map, const Imports& imports, const Elf64_Rela* relocation,
             std::size_t bytes, const char* symbol, std::vector<void**>& slots) {
    for (std::size_t i = 0; i < bytes / sizeof *relocation; ++i) {
        const auto type = ELF64_R_TYPE(relocation[i].r_info);
        if (type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) continue;
        const auto& entry = imports.symbols[ELF64_R_SYM(relocation[i].r_info)];
        if (strcmp(imports.names + entry.st_name, symbol) == 0)
            slots.push_back(reinterpret_cast<void**>(map->l_addr + relocation[i].r_offset));
    }
}

// Import slots are read-only after relocation.
void make_writable(void** slot) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(slot) & ~(page - 1);
    mprotect(reinterpret_cast<void*>(start), page, PROT_READ | PROT_WRITE);
}

const link_map* loaded(std::string_view library) {
    void* self = dlopen(nullptr, RTLD_LAZY);
    link_map* map = nullptr;
    dlinfo(self, RTLD_DI_LINKMAP, &map);
    dlclose(self);
    while (map->l_prev != nullptr)
        map = map->l_prev;
    for (; map != nullptr; map = map->l_next) {
        const std::string_view path = map->l_name;
        if (path.substr(path.rfind('/') + 1) == library) return map;
    }
    return nullptr;
}

}  // namespace

Interpose::Interpose(const char* library, const char* symbol, void* replacement) {
    const link_map* map = loaded(library);
    if (map == nullptr) {
        ADD_FAILURE() << library << " is not loaded";
        return;
    }
    const Imports imports = imports_of(map);
    collect(map, imports, imports.calls, imports.call_bytes, symbol, slots_);
    collect(map, imports, imports.data, imports.data_bytes, symbol, slots_);
    if (slots_.empty()) {
        ADD_FAILURE() << library << " does not import " << symbol;
        return;
    }
    original_ = *slots_.front();
    ++made_here_;
    for (void** slot : slots_) {
        make_writable(slot);
        __atomic_store_n(slot, replacement, __ATOMIC_SEQ_CST);
    }
}

Interpose::~Interpose() {
    if (slots_.empty()) return;
    for (void** slot : slots_)
        __atomic_store_n(slot, original_, __ATOMIC_SEQ_CST);
    --made_here_;
}

}  // namespace osal_test
