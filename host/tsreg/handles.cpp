#include "handles.h"

#include <cstdlib>

namespace tsreg {
namespace {

struct Place {
    OpenKey* key;      // null: free
    UINT32 uses;       // of this place so far; never 0 in a handle
    UINT32 next_free;  // place, if this one is free
};

constexpr UINT32 kNone = ~UINT32{0};
constexpr INT64 kNoKey = -1;
constexpr UINT32 kFirstCapacity = 16;

constinit Place* places = nullptr;
constinit UINT32 capacity = 0;
constinit UINT32 first_free = kNone;

bool grow() {
    if (capacity >= kNone / 2) return false;
    const UINT32 larger = capacity != 0 ? 2 * capacity : kFirstCapacity;
    auto* moved = static_cast<Place*>(std::realloc(places, larger * sizeof(Place)));
    if (moved == nullptr) return false;
    places = moved;
    for (UINT32 i = larger; i-- > capacity;) {
        places[i] = {nullptr, 0, first_free};
        first_free = i;
    }
    capacity = larger;
    return true;
}

// The number of uses lies in the upper half, so that no handle equals the hive's.
HANDLE handle_of(UINT32 place) {
    return reinterpret_cast<HANDLE>(uintptr_t{places[place].uses} << 32 | place);
}

Place* place_of(HANDLE handle) {
    const auto number = reinterpret_cast<uintptr_t>(handle);
    const auto place = static_cast<UINT32>(number);
    if (place >= capacity || places[place].key == nullptr) return nullptr;
    return handle_of(place) == handle ? &places[place] : nullptr;
}

}  // namespace

HANDLE add_handle(INT64 id, UINT32 access) {
    if (first_free == kNone && !grow()) return nullptr;
    auto* key = static_cast<OpenKey*>(std::calloc(1, sizeof(OpenKey)));
    if (key == nullptr) return nullptr;
    key->id = id;
    key->access = access;
    const UINT32 index = first_free;
    Place& place = places[index];
    first_free = place.next_free;
    place.key = key;
    if (++place.uses == 0) place.uses = 1;
    return handle_of(index);
}

OpenKey* find_handle(HANDLE handle) {
    Place* place = place_of(handle);
    return place != nullptr ? place->key : nullptr;
}

bool remove_handle(HANDLE handle) {
    Place* place = place_of(handle);
    if (place == nullptr) return false;
    std::free(place->key);
    place->key = nullptr;
    place->next_free = first_free;
    first_free = static_cast<UINT32>(place - places);
    return true;
}

void disown_keys_from(INT64 id) {
    for (UINT32 i = 0; i < capacity; ++i)
        if (OpenKey* key = places[i].key; key != nullptr && key->id >= id) key->id = kNoKey;
}

void free_handles() {
    for (UINT32 i = 0; i < capacity; ++i)
        std::free(places[i].key);
    std::free(places);
    places = nullptr;
    capacity = 0;
    first_free = kNone;
}

}  // namespace tsreg
