// load_region.cpp: a server's load in a named mapping.

#include <traiklofox/file_mapping.h>
#include <traiklofox/load_region.h>
#include <traiklofox/strings.h>

#include <atomic>
#include <cerrno>
#include <new>

namespace {

constexpr DWORD kWords = 34;
constexpr DWORD kSize = kWords * sizeof(DWORD);
constexpr size_t kLoad = 0;
constexpr size_t kFirstCleared = 31;
constexpr size_t kFilled = 32;
constexpr size_t kLastCleared = 33;
constexpr DWORD kAllBits = 0xFFFFFFFF;

static_assert(std::atomic_ref<DWORD>::is_always_lock_free, "processes share it");

/// One word, which other processes read at any time.
void store(DWORD& word, DWORD value) {
    std::atomic_ref(word).store(value, std::memory_order_relaxed);
}

/// `MapViewOfFile` gives an address even when it fails, and says so by errno alone.
DWORD* mapWhole(Handle* mapping) {
    const int before = errno;
    errno = 0;
    void* const view =
        MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, /*offsetHigh=*/0, /*offsetLow=*/0, /*bytes=*/0);
    if (errno != 0) return nullptr;
    errno = before;
    return static_cast<DWORD*>(view);
}

BOOL initialize(Handle** mapping, DWORD** region, const char* suffix) {
    const CKZString name = CKZString("KZLoadValue") + suffix;
    _SECURITY_ATTRIBUTES inherited{sizeof inherited, /*lpSecurityDescriptor=*/nullptr,
                                   /*bInheritHandle=*/TRUE};
    Handle* const handle = CreateFileMapping(INVALID_HANDLE_VALUE, &inherited, PAGE_READWRITE, /*sizeHigh=*/0,
                                             kSize, name.c_str());
    if (handle == nullptr) return FALSE;
    DWORD* const words = mapWhole(handle);
    if (words == nullptr) {
        const int error = errno;
        CloseHandle(handle);
        errno = error;
        return FALSE;
    }
    store(words[kLoad], LOAD_NO_SERVER);
    store(words[kFirstCleared], 0);
    store(words[kFilled], kAllBits);
    store(words[kLastCleared], 0);
    if (mapping != nullptr)
        *mapping = handle;
    else
        CloseHandle(handle);
    if (region != nullptr) *region = words;
    return TRUE;
}

}  // namespace

BOOL InitLoadBalancingRegion(Handle** mapping, DWORD** region, const char** suffix) {
    try {
        return initialize(mapping, region, suffix != nullptr ? *suffix : nullptr);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return FALSE;
    }
}

BOOL KzSetServerLoad(DWORD load, DWORD* region) {
    if (region == nullptr || load > LOAD_MAXIMUM) return FALSE;
    store(region[kLoad], load);
    return TRUE;
}

DWORD KzGetServerLoad(const DWORD* region) {
    if (region == nullptr) return LOAD_NO_SERVER;
    // The word is only read; C++20 has no reference to a constant atomic.
    return std::atomic_ref(const_cast<DWORD&>(region[kLoad])).load(std::memory_order_relaxed);
}

BOOL DetachLoadBalancingRegion(DWORD* region) {
    if (region == nullptr) return TRUE;
    store(region[kLoad], LOAD_NO_SERVER);
    (void)UnmapViewOfFile(region);  // one that is no view stays
    return TRUE;
}

BOOL KzSetServerUnrestricted() {
    return TRUE;
}

BOOL KzSetServerRestricted() {
    return TRUE;
}
