#include "vocabulary.h"

#include <new>

#include "host/lcm.h"

namespace wordindex {
namespace {

constexpr GUID kWordType = {
    0x5B1D8C0E, 0x2F64, 0x4E3A, {0x9A, 0x17, 0xC3, 0x40, 0x6E, 0x85, 0xD2, 0x1B}};
constexpr UINT16 kWordsPerBlock = 255;
constexpr UINT64 kSession = 1;

// The data of an object. The text does not change; the count is guarded by the object's lock.
struct CountedWord {
    const Client* client;
    PWCHAR text;  // pool memory of the object
    UINT32 length;
    UINT64 count;

    WideText view() const { return {text, length}; }
};

const HANDLE kAny = reinterpret_cast<HANDLE>(~uintptr_t{0});
const SCHANDLE kEveryContext = {kAny, kAny};

// An object that is referenced, and locked as `access` says.
class Held {
  public:
    Held(ISCOM_2& objects, PVOID object, UINT32 access)
        : objects_(objects), object_(object), access_(access) {}
    ~Held() { objects_.lpVtbl->DereferenceObject(&objects_, object_, access_); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    CountedWord* operator->() const { return static_cast<CountedWord*>(object_); }

  private:
    ISCOM_2& objects_;
    const PVOID object_;
    const UINT32 access_;
};

struct NewWord {
    const Client& client;
    const Word& word;
};

// Called with the zeroed data of a new object.
KCSTATUS store_word(PVOID object, PVOID init_data) {
    const auto& [client, word] = *static_cast<const NewWord*>(init_data);
    const auto size = static_cast<UINT32>((word.length + 1) * sizeof(WCHAR));  // as it has been
    const auto text = static_cast<PWCHAR>(client.call<&IOsalVtbl::KxAllocPagedMemory>(size));
    if (text == nullptr)
        return KC_MAKE_STATUS(KC_SEVERITY_ERROR, KC_FACILITY_OSAL, KC_CODE_NO_RESOURCES);
    client.call<&IOsalVtbl::KxCopyMemory>(PVOID{text}, static_cast<const void*>(word.text()), size);
    *static_cast<CountedWord*>(object) = {&client, text, word.length, 0};
    return KC_OK;
}

KCSTATUS free_text(PVOID object) {
    const auto* word = static_cast<CountedWord*>(object);
    word->client->call<&IOsalVtbl::KxFreeMemory>(word->text);
    return KC_OK;
}

BOOLEAN is_word(PVOID object, PVOID word) {
    return static_cast<CountedWord*>(object)->view() == static_cast<const Word*>(word)->view();
}

template <class Interface>
Interface* make_instance(const GUID& class_id, const GUID& interface_id, const char* what) {
    void* instance = nullptr;
    const KCSTATUS status = LcmCreateInstance(&class_id, nullptr, &interface_id, &instance);
    if (KC_IS_ERROR(status)) throw failure(std::string("cannot make ") + what, status);
    return static_cast<Interface*>(instance);
}

void check(KCSTATUS status, const char* what) {
    if (!KC_IS_ERROR(status)) return;
    if (KC_CODE(status) == KC_CODE_NO_RESOURCES) throw std::bad_alloc();
    throw failure(what, status);
}

}  // namespace

Context::Context(ISecurityContext& manager, uid_t user) : manager_(manager) {
    check(manager_.lpVtbl->OpenContext(&manager_, user, kSession, &handle_),
          "cannot open a security context");
}

Vocabulary::Vocabulary(const Client& client, UINT32 buckets, const std::set<uid_t>& owners)
    : client_(client),
      buckets_(buckets),
      context_manager_(make_instance<ISecurityContext>(
          CLSID_SecurityContextManager, IID_ISecurityContext_1, "the security contexts")),
      objects_(make_instance<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2,
                                      "the store of words")) {
    check(objects_->lpVtbl->Initialize(objects_.get(), &kWordType, sizeof(CountedWord),
                                       kWordsPerBlock, KX_OBJECT_LEVEL_LOCK, buckets, free_text,
                                       nullptr, nullptr, 0),
          "cannot start the store of words");
    for (const uid_t owner : owners)
        contexts_.try_emplace(owner, *context_manager_, owner);
}

void Vocabulary::add(uid_t owner, const WordTable& words) {
    const SCHANDLE context = contexts_.at(owner).handle();
    for (const Word* word : words.words())
        add(context, *word);
}

// Finds the word or makes it; either way it comes referenced and locked.
void Vocabulary::add(SCHANDLE context, const Word& word) {
    NewWord init = {client_, word};
    PVOID object = nullptr;
    UINT32 mode = 0;
    check(objects_->lpVtbl->CreateObject(
              objects_.get(), context, &init, store_word, const_cast<Word*>(&word), is_word,
              client_.call<&IOsalVtbl::KxStrHashW>(word.text(), buckets_), KX_OBJECT_EXCLUSIVE,
              KX_OBJECT_EXCLUSIVE, &object, &mode),
          "cannot store a word");
    Held(*objects_, object, KX_OBJECT_EXCLUSIVE)->count += word.count;
}

void Vocabulary::for_each(const std::function<void(const OwnedWord&)>& visit) const {
    ISCOM_SCAN_DATA scan = {};
    for (;;) {
        PVOID object = nullptr;
        const KCSTATUS status = objects_->lpVtbl->EnumerateObjects(
            objects_.get(), kEveryContext, &scan, nullptr, nullptr, KX_OBJECT_SHARED, &object);
        if (KC_IS_ERROR(status) && KC_CODE(status) == KC_CODE_NO_MORE_ENTRIES) return;
        check(status, "cannot list the words");
        const Held word(*objects_, object, KX_OBJECT_SHARED);
        visit({owner_of(object), word->view(), word->count});
    }
}

std::map<uid_t, ObjectCounts> Vocabulary::object_counts() const {
    std::map<uid_t, ObjectCounts> all;
    for (const auto& [owner, context] : contexts_) {
        ObjectCounts& counts = all[owner];
        check(objects_->lpVtbl->GetObjectStats(objects_.get(), context.handle(), &counts.slots,
                                               &counts.in_use, &counts.preallocated),
              "cannot read the object statistics");
    }
    return all;
}

uid_t Vocabulary::owner_of(PVOID object) const {
    SCHANDLE context = {};
    check(objects_->lpVtbl->GetObjectSecurityContext(objects_.get(), object, &context),
          "cannot tell whose a word is");
    return static_cast<uid_t>(reinterpret_cast<UINT64>(context.hTypeId));
}

}  // namespace wordindex
