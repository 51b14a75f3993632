// The table of the service interface, row by row.
#include <dlfcn.h>
#include <string.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/service_test.h"

namespace osal_test {
namespace {

struct Row {
    std::size_t number;
    std::string slot, function;
    bool served;
};

const std::vector<Row>& rows() {
#define SERVED(number, field, function, ...) {number, #field, #function, true},
#define VACANT(number, field, function, ...) {number, #field, #function, false},
    static const std::vector<Row> all = {KX_IOSAL_SLOTS(SERVED, VACANT)};
#undef SERVED
#undef VACANT
    return all;
}

class Slots : public ServiceTest {
  protected:
    Slots() {
        static_assert(sizeof *slots == sizeof entries);
        memcpy(entries, slots, sizeof entries);
    }
    void* entries[90];
};

TEST_F(Slots, AreNinetyInTheFrozenOrder) {
    std::ifstream file(OSAL_SOURCE_DIR "/tests/abi/exports/services.txt");
    std::vector<std::string> frozen, present;
    for (std::string name; std::getline(file, name);)
        frozen.push_back(name);
    for (const Row& row : rows()) {
        EXPECT_EQ(row.number, present.size());
        present.push_back(row.function);
    }
    EXPECT_EQ(frozen.size(), 90u);
    EXPECT_EQ(present, frozen);
}

TEST_F(Slots, BearTheNameOfTheirServiceButForTheFirstThree) {
    for (std::size_t i = 3; i < rows().size(); ++i)
        EXPECT_EQ(rows()[i].slot, rows()[i].function);
    EXPECT_EQ(rows()[0].slot, "QueryInterface");
    EXPECT_EQ(rows()[1].slot, "AddRef");
    EXPECT_EQ(rows()[2].slot, "Release");
}

TEST_F(Slots, HoldTheExportedServices) {
    for (const Row& row : rows()) {
        if (!row.served) continue;
        void* exported = dlsym(RTLD_DEFAULT, row.function.c_str());
        EXPECT_NE(exported, nullptr) << row.function;
        EXPECT_EQ(entries[row.number], exported) << row.function;
    }
}

TEST_F(Slots, OfServicesThatAreNotBuiltAreNull) {
    for (const Row& row : rows()) {
        if (row.served) continue;
        EXPECT_EQ(entries[row.number], nullptr) << row.function;
        EXPECT_EQ(dlsym(RTLD_DEFAULT, row.function.c_str()), nullptr) << row.function;
    }
}

TEST_F(Slots, AreTheSameForEveryInstance) {
    PIOsal other = new_instance();
    EXPECT_EQ(other->lpVtbl, slots);
    EXPECT_EQ(pIOsal->lpVtbl, slots);
    OsalReleaseReference(other);
}

}  // namespace
}  // namespace osal_test
