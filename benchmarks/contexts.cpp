// Objects through security contexts, beside one plain object manager of the same objects.
#include <cstdlib>
#include <vector>

#include "harness.h"
#include "host/lcm.h"
#include "host/secattr.h"
#include "library.h"

namespace {

using bench::keep;
using Number = UINT64;

constexpr UINT32 kBuckets = 16;
constexpr Number kObjectsInEach = 16;  // objects a context
constexpr GUID kComponent = {0xB1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

template <class Interface>
Interface* make(const GUID& clsid, const GUID& iid) {
    void* made = nullptr;
    if (KC_IS_ERROR(LcmCreateInstance(&clsid, nullptr, &iid, &made))) {
        std::fprintf(stderr, "the components do not start\n");
        std::exit(1);
    }
    return static_cast<Interface*>(made);
}

SCHANDLE context(UINT64 number) {
    return {reinterpret_cast<HANDLE>(number + 1), reinterpret_cast<HANDLE>(UINT64{1})};
}

KCSTATUS fill(PVOID object, PVOID number) {
    *static_cast<Number*>(object) = *static_cast<Number*>(number);
    return KC_OK;
}
BOOLEAN equal(PVOID object, PVOID number) {
    return *static_cast<Number*>(object) == *static_cast<Number*>(number);
}
UINT32 bucket(Number number) {
    return static_cast<UINT32>(number % kBuckets);
}

// The same objects in one plain manager, and in a manager for each context.
struct Plain {
    IOM* manager = make<IOM>(CLSID_ObjectManagerDataStore, IID_IObjectManager_1);
    Number objects;
    UINT32 buckets;

    explicit Plain(UINT64 contexts)
        : objects(contexts * kObjectsInEach), buckets(static_cast<UINT32>(contexts) * kBuckets) {
        manager->lpVtbl->Initialize(manager, sizeof(Number), 64, 0, buckets, nullptr, nullptr,
                                    nullptr, 0);
        for (Number number = 0; number < objects; ++number)
            drop(create(number));
    }
    UINT32 bucket(Number number) const { return static_cast<UINT32>(number % buckets); }
    Number any(std::uint64_t n) const { return n * 7919 % objects; }
    ~Plain() { manager->lpVtbl->Release(manager); }
    PVOID create(Number number) {
        PVOID object = nullptr;
        manager->lpVtbl->CreateObject(manager, &number, fill, nullptr, nullptr, bucket(number), 0,
                                      0, &object, nullptr);
        return object;
    }
    PVOID find(Number number) {
        PVOID object = nullptr;
        manager->lpVtbl->FindObject(manager, &number, equal, bucket(number), 0, &object);
        return object;
    }
    void drop(PVOID object) { manager->lpVtbl->DereferenceObject(manager, object, 0); }
    void end(PVOID object) { manager->lpVtbl->DeleteObject(manager, object, 0); }
};

struct Contexts {
    ISecurityContext* contexts =
        make<ISecurityContext>(CLSID_SecurityContextManager, IID_ISecurityContext_1);
    ISCOM_2* manager = make<ISCOM_2>(CLSID_ObjectManagerDataStore, IID_ISCObjectManager_2);
    UINT64 count;

    explicit Contexts(UINT64 contexts_wanted) : count(contexts_wanted) {
        manager->lpVtbl->Initialize(manager, &kComponent, sizeof(Number), 64, 0, kBuckets, nullptr,
                                    nullptr, nullptr, 0);
        for (UINT64 i = 0; i < count; ++i)
            for (Number number = 0; number < kObjectsInEach; ++number)
                drop(create(context(i), number));
    }
    ~Contexts() {
        for (UINT64 i = 0; i < count; ++i)
            contexts->lpVtbl->EndContext(contexts, context(i));
        manager->lpVtbl->Release(manager);
        contexts->lpVtbl->Release(contexts);
    }
    PVOID create(SCHANDLE where, Number number) {
        PVOID object = nullptr;
        manager->lpVtbl->CreateObject(manager, where, &number, fill, nullptr, nullptr,
                                      bucket(number), 0, 0, &object, nullptr);
        return object;
    }
    PVOID find(SCHANDLE where, Number number) {
        PVOID object = nullptr;
        manager->lpVtbl->FindObject(manager, where, &number, equal, bucket(number), 0, &object);
        return object;
    }
    void drop(PVOID object) { manager->lpVtbl->DereferenceObject(manager, object, 0); }
    void end(PVOID object) { manager->lpVtbl->DeleteObject(manager, object, 0); }
};

// What a context has for itself, as far apart in memory as the managers of contexts are: a record,
// a place in it and an object, each found by way of the one before.
struct Belongings {
    static constexpr std::size_t kSize = 9'000;  // of a manager with its objects
    static constexpr std::size_t kApart = 120;   // words
    struct Word {
        Word* next;
    };

    static KCSTATUS make(PAttribute attribute, void*) {
        auto* all = static_cast<Word*>(std::calloc(1, kSize));
        all[0].next = all + kApart;
        all[kApart].next = all + 2 * kApart;
        *static_cast<Word**>(attribute->pData) = all;
        return KC_OK;
    }
    static void visit(PAttribute attribute) {
        keep((*static_cast<Word**>(attribute->pData))->next->next->next);
    }
    static void end(PAttribute attribute) { std::free(*static_cast<Word**>(attribute->pData)); }
};

// The look-up of a context's attribute alone: what going through a context has to cost.
struct Attributes {
    ISA* manager = make<ISA>(CLSID_SecurityAttributeManager, IID_IContextAttribute_1);
    HANDLE type = nullptr;

    Attributes(UINT64 contexts, bool with_belongings) {
        manager->lpVtbl->SARegisterAttribute(manager, &kComponent, 8, nullptr,
                                             with_belongings ? Belongings::end : nullptr, &type);
        for (UINT64 i = 0; i < contexts; ++i) {
            PAttribute attribute = nullptr;
            manager->lpVtbl->SACreate(manager, context(i), type, nullptr,
                                      with_belongings ? Belongings::make : nullptr, 0, 0,
                                      &attribute, nullptr);
            manager->lpVtbl->SADereference(manager, 0, attribute);
        }
    }
    ~Attributes() {
        manager->lpVtbl->SADeregisterAttribute(manager, type);
        manager->lpVtbl->Release(manager);
    }
    void look_up(SCHANDLE where, void (*visit)(PAttribute) = nullptr) {
        PAttribute attribute = nullptr;
        manager->lpVtbl->SAReference(manager, where, type, 2, &attribute);
        if (visit != nullptr) visit(attribute);
        manager->lpVtbl->SADereference(manager, 2, attribute);
    }
};

// The four ways to the same number of objects.
struct Subject {
    explicit Subject(UINT64 contexts)
        : count(contexts),
          plain(contexts),
          through(contexts),
          attributes(contexts, false),
          apart(contexts, true) {}

    SCHANDLE turn(std::uint64_t n) const { return context(n * 7919 % count); }

    // An operation on the plain manager, the same after the look-up of an attribute, and of one
    // with memory for its context, and its counterpart through contexts.
    template <class Direct, class Indirect>
    void race(bench::Report& report, const char* what, Direct direct, Indirect indirect) {
        report.race(what, bench::count_name(count) + " contexts", static_cast<double>(count),
                    {{"plain manager",
                      [=](std::uint64_t n) {
                          for (; n != 0; --n)
                              direct(n);
                      }},
                     {"plain manager and attribute look-up",
                      [=, this](std::uint64_t n) {
                          for (; n != 0; --n) {
                              attributes.look_up(turn(n));
                              direct(n);
                          }
                      }},
                     {"the same, with memory for each context",
                      [=, this](std::uint64_t n) {
                          for (; n != 0; --n) {
                              apart.look_up(turn(n), Belongings::visit);
                              direct(n);
                          }
                      }},
                     {"through contexts", [=](std::uint64_t n) {
                          for (; n != 0; --n)
                              indirect(n);
                      }}});
    }

    UINT64 count;
    Plain plain;
    Contexts through;
    Attributes attributes;
    Attributes apart;
};

// One step of a scan over everything that is there.
void step(Plain& plain, HANDLE& scan) {
    PVOID object = nullptr;
    if (KC_IS_ERROR(plain.manager->lpVtbl->EnumerateObjects(plain.manager, &scan, nullptr, nullptr,
                                                            0, &object)))
        scan = nullptr;
    else
        plain.drop(object);
}
void step(Contexts& through, ISCOM_SCAN_DATA& scan) {
    const auto all_ones = reinterpret_cast<HANDLE>(~UINT64{0});
    PVOID object = nullptr;
    if (KC_IS_ERROR(through.manager->lpVtbl->EnumerateObjects(through.manager, {all_ones, all_ones},
                                                              &scan, nullptr, nullptr, 0, &object)))
        scan = {};
    else
        through.drop(object);
}

void measure(bench::Report& report, UINT64 count) {
    Subject subject(count);
    Plain& plain = subject.plain;
    Contexts& through = subject.through;
    subject.race(
        report, "Find an object", [&](UINT64 n) { plain.drop(plain.find(plain.any(n))); },
        [&](UINT64 n) { through.drop(through.find(subject.turn(n), n % kObjectsInEach)); });
    subject.race(
        report, "Create and delete an object",
        [&](UINT64 n) { plain.end(plain.create(plain.any(n))); },
        [&](UINT64 n) { through.end(through.create(subject.turn(n), n % kObjectsInEach)); });
    HANDLE plain_scan = nullptr;
    ISCOM_SCAN_DATA scan = {};
    subject.race(
        report, "One step of an enumeration", [&](UINT64) { step(plain, plain_scan); },
        [&](UINT64) { step(through, scan); });
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"contexts", "Objects through security contexts", "one object",
                          "16 objects a context; the look-up of the context's attribute is what "
                          "going through a context has to cost. With memory for each context: the "
                          "look-up also reads a record, a place in it and an object that belong to "
                          "the context, so it meets memory that is as cold as that of managers",
                          "contexts"});
    if (KC_IS_ERROR(LcmStart(nullptr))) return 1;
    for (UINT64 count : {1, 10, 100, 1'000, 10'000})
        if (!report.quick() || count <= 1'000) measure(report, count);
    const int code = report.finish();
    LcmStop();
    return code;
}
