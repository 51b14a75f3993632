// What a call through the table costs.
#include "harness.h"
#include "library.h"

namespace {

using bench::keep;

// Does what the called service does.
__attribute__((noinline)) BOOLEAN is_empty(PIOsal osal, PLIST_ENTRY head) {
    keep(osal);
    return head->Flink == head;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Report report(argc, argv,
                         {"call", "A call through the table", "one call of a service of two steps",
                          "An empty list is asked whether it is empty. The raw primitive is a call "
                          "of the same steps through a function pointer that the compiler cannot "
                          "see through.",
                          ""});
    bench::Library library;
    bench::Instance osal;
    LIST_ENTRY head;
    osal->KxInitializeListHead(osal, &head);
    BOOLEAN (*volatile hidden)(PIOsal, PLIST_ENTRY) = is_empty;
    BOOLEAN (*const pointer)(PIOsal, PLIST_ENTRY) = hidden;
    report.race("Calls", "KxIsListEmpty", 1,
                {{"function pointer",
                  [&, pointer](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(pointer(osal, &head));
                  }},
                 {"direct call",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(is_empty(osal, &head));
                  }},
                 {"service, by name",
                  [&](std::uint64_t n) {
                      for (; n != 0; --n)
                          keep(KxIsListEmpty(osal, &head));
                  }},
                 {"service, by table", [&](std::uint64_t n) {
                      for (; n != 0; --n) {
                          PIOsal client = osal;
                          keep(client);  // so that the slot is fetched each time
                          keep(client->lpVtbl->KxIsListEmpty(client, &head));
                      }
                  }}});
    return report.finish();
}
