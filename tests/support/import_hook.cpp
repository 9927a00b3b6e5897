#include "import_hook.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace gaktest {
namespace {

#if defined(__x86_64__)
constexpr uint32_t kJumpSlot = R_X86_64_JUMP_SLOT;
constexpr uint32_t kGlobDat = R_X86_64_GLOB_DAT;
constexpr uint32_t kAbsolute = R_X86_64_64;
#elif defined(__aarch64__)
constexpr uint32_t kJumpSlot = R_AARCH64_JUMP_SLOT;
constexpr uint32_t kGlobDat = R_AARCH64_GLOB_DAT;
constexpr uint32_t kAbsolute = R_AARCH64_ABS64;
#else
#error "relocation types of this processor are not known"
#endif

// A loaded library: where it lies and what its dynamic section says.
struct Library {
    uintptr_t base = 0;
    uintptr_t end = 0;
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    const ElfW(Rela) * relocations = nullptr;
    size_t relocationBytes = 0;
    const ElfW(Rela) * pltRelocations = nullptr;
    size_t pltRelocationBytes = 0;
    bool boundAtLoad = false;

    bool Contains(uintptr_t address) const { return address >= base && address < end; }
};

bool HasFileName(const char* path, const std::string& name)
{
    const char* slash = strrchr(path, '/');
    const char* file = slash != nullptr ? slash + 1 : path;
    return strncmp(file, name.c_str(), name.size()) == 0 && (file[name.size()] == '\0' || file[name.size()] == '.');
}

// The C library relocates the pointers of the dynamic section when it loads a library, except where that section is
// read-only.
uintptr_t Relocated(uintptr_t base, uintptr_t pointer)
{
    return pointer < base ? base + pointer : pointer;
}

void ReadDynamicSection(const ElfW(Dyn) * entry, Library& library)
{
    for (; entry->d_tag != DT_NULL; ++entry) {
        const uintptr_t pointer = Relocated(library.base, entry->d_un.d_ptr);
        switch (entry->d_tag) {
            case DT_SYMTAB:
                library.symbols = reinterpret_cast<const ElfW(Sym)*>(pointer);
                break;
            case DT_STRTAB:
                library.names = reinterpret_cast<const char*>(pointer);
                break;
            case DT_RELA:
                library.relocations = reinterpret_cast<const ElfW(Rela)*>(pointer);
                break;
            case DT_RELASZ:
                library.relocationBytes = entry->d_un.d_val;
                break;
            case DT_JMPREL:
                library.pltRelocations = reinterpret_cast<const ElfW(Rela)*>(pointer);
                break;
            case DT_PLTRELSZ:
                library.pltRelocationBytes = entry->d_un.d_val;
                break;
            case DT_BIND_NOW:
                library.boundAtLoad = true;
                break;
            case DT_FLAGS:
                library.boundAtLoad = library.boundAtLoad || (entry->d_un.d_val & DF_BIND_NOW) != 0;
                break;
            case DT_FLAGS_1:
                library.boundAtLoad = library.boundAtLoad || (entry->d_un.d_val & DF_1_NOW) != 0;
                break;
            default:
                break;
        }
    }
}

struct Search {
    const std::string& name;
    Library object;
};

int VisitLibrary(dl_phdr_info* info, size_t /*size*/, void* data)
{
    auto* search = static_cast<Search*>(data);
    if (!HasFileName(info->dlpi_name, search->name)) {
        return 0;
    }
    Library& library = search->object;
    library.base = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type == PT_LOAD && library.base + header.p_vaddr + header.p_memsz > library.end) {
            library.end = library.base + header.p_vaddr + header.p_memsz;
        }
    }
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type == PT_DYNAMIC) {
            ReadDynamicSection(reinterpret_cast<const ElfW(Dyn)*>(library.base + info->dlpi_phdr[i].p_vaddr), library);
        }
    }
    return 1;
}

Library FindLibrary(const std::string& name)
{
    Search search{name, {}};
    if (dl_iterate_phdr(&VisitLibrary, &search) == 0 || search.object.symbols == nullptr) {
        throw std::runtime_error("ImportHook: " + name + " is not loaded");
    }
    return search.object;
}

void CollectSlots(const Library& library, const ElfW(Rela) * first, size_t bytes, const std::string& symbol,
                  std::vector<uintptr_t*>& found)
{
    for (const ElfW(Rela)* entry = first; entry != first + bytes / sizeof(*entry); ++entry) {
        const auto type = static_cast<uint32_t>(ELF64_R_TYPE(entry->r_info));
        const bool holdsAddress = type == kJumpSlot || type == kGlobDat || (type == kAbsolute && entry->r_addend == 0);
        const ElfW(Sym)& target = library.symbols[ELF64_R_SYM(entry->r_info)];
        if (holdsAddress && symbol == library.names + target.st_name) {
            found.push_back(reinterpret_cast<uintptr_t*>(library.base + entry->r_offset));
        }
    }
}

// Rewrites a pointer that the dynamic linker may have made read-only after relocation. The page stays writable: what
// else lies on it may never have been protected.
void WriteSlot(uintptr_t* slot, uintptr_t value)
{
    const auto pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* page = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(slot) & ~(pageSize - 1));
    if (mprotect(page, pageSize, PROT_READ | PROT_WRITE) == -1) {
        throw std::runtime_error(std::string("ImportHook: mprotect: ") + strerror(errno));
    }
    __atomic_store_n(slot, value, __ATOMIC_SEQ_CST);
}

// A slot that is bound on the first call points into its own library until then.
uintptr_t ResolvedTarget(const Library& library, const std::string& symbol, uintptr_t inSlot)
{
    if (library.boundAtLoad || !library.Contains(inSlot)) {
        return inSlot;
    }
    return reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, symbol.c_str()));
}

}  // namespace

ImportHook::ImportHook(const std::string& symbol, void* replacement, const std::string& library)
{
    const Library found = FindLibrary(library);
    std::vector<uintptr_t*> addresses;
    CollectSlots(found, found.relocations, found.relocationBytes, symbol, addresses);
    CollectSlots(found, found.pltRelocations, found.pltRelocationBytes, symbol, addresses);
    if (addresses.empty()) {
        throw std::runtime_error("ImportHook: " + library + " does not import " + symbol);
    }
    original_ = ResolvedTarget(found, symbol, *addresses.front());
    if (original_ == 0) {
        throw std::runtime_error("ImportHook: " + symbol + " cannot be resolved");
    }
    for (uintptr_t* address : addresses) {
        slots_.push_back({address, *address});
        WriteSlot(address, reinterpret_cast<uintptr_t>(replacement));
    }
}

ImportHook::~ImportHook()
{
    for (const Slot& slot : slots_) {
        __atomic_store_n(slot.address, slot.before, __ATOMIC_SEQ_CST);
    }
}

}  // namespace gaktest
