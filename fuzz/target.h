// What the fuzz targets share: a started library, and values read off the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "osal/linux/internal/locale.h"
#include "osal/osal.h"

namespace fuzz {

// The one instance, of a library that was started at the first call.
inline PIOsal instance() {
    static PIOsal osal = [] {
        setenv("OSAL_DO_NOT_OVERWRITE_OPENLOG", "1", 1);
        setenv("KCSTATUS_LOG", "off", 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        DllStart();
        void* factory = nullptr;
        if (DllGetClassObject(&CLSID_OrvaneOsal, &IID_IClassFactory, &factory) != KC_S_OK) abort();
        auto* class_factory = static_cast<LCM_IClassFactory*>(factory);
        void* made = nullptr;
        class_factory->lpVtbl->CreateInstance(class_factory, nullptr, &IID_IOrvaneOsal_1, &made);
        return static_cast<PIOsal>(made);
    }();
    return osal;
}

// Makes one of a few code pages that of the library, as a start with it would.
inline const char* choose_page(unsigned number) {
    static constexpr const char* kPages[] = {"437",         "850",   "WINDOWS-1252", "SJIS",
                                             "EUC-JP",      "GBK",   "UTF-8",        "KOI8-R",
                                             "ISO-2022-JP", "UTF-7", "BIG5",         "EUC-KR"};
    static const char* current = nullptr;
    const char* page = kPages[number % (sizeof kPages / sizeof kPages[0])];
    instance();
    if (page == current) return page;
    UnInitCharConvInfrastructure();
    setenv("TESSEL_CODE_PAGE", page, 1);
    if (InitCharConvInfrastructure() != 0) abort();
    return current = page;
}

// Ends the run with the input kept when something is not so.
inline void require(bool is_so, const char* what) {
    if (is_so) return;
    fprintf(stderr, "not so: %s\n", what);
    abort();
}

// Takes values from the front of an input; zeroes once it is used up.
class Input {
  public:
    Input(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    uint8_t byte() {
        if (size_ == 0) return 0;
        --size_;
        return *data_++;
    }
    uint16_t word() {
        const unsigned low = byte();
        return static_cast<uint16_t>(low | unsigned{byte()} << 8);
    }
    uint32_t number() {
        const uint32_t low = word();
        return low | uint32_t{word()} << 16;
    }
    // Exactly as many as are asked for and there, in a block of the heap of just that size.
    template <class Unit>
    std::vector<Unit> units(std::size_t count) {
        count = count < size_ / sizeof(Unit) ? count : size_ / sizeof(Unit);
        std::vector<Unit> units(count);
        if (count > 0) memcpy(units.data(), data_, count * sizeof(Unit));
        data_ += count * sizeof(Unit);
        size_ -= count * sizeof(Unit);
        return units;
    }
    template <class Unit>
    std::vector<Unit> rest() {
        return units<Unit>(size_);
    }

  private:
    const uint8_t* data_;
    std::size_t size_;
};

}  // namespace fuzz
