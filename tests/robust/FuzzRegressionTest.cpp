// Every input that once broke a fuzzing harness is kept under
// tests/fuzz/regressions/<harness>/ and replayed here through the harness's
// own entry function: none may crash, read out of bounds or break an
// invariant again.
#include "../fuzz/FuzzTargets.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace testsupport;

TEST(FuzzRegressions, EveryKeptInputRunsCleanly)
{
    for (const fuzz::Target& target : fuzz::kTargets) {
        const fs::path dir = sourceDir() / "tests" / "fuzz" / "regressions" / target.name;
        for (const auto& e : fs::is_directory(dir) ? fs::directory_iterator(dir) : fs::directory_iterator()) {
            SCOPED_TRACE(e.path().string());
            const std::vector<uint8_t> bytes = readFile(e.path());
            int result = -1;
            printedBy([&] { result = target.run(bytes.data(), bytes.size()); });
            EXPECT_EQ(result, 0); // a kept input is one the harness ran, not one it refused
        }
    }
}
