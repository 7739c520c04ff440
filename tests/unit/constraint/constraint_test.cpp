#include <cstdio>

#include <gtest/gtest.h>

#include "support/environment.h"
#include "unit/constraint/constraint_fuzz.h"

namespace {

class constraint : public testing::Test {
protected:
  void SetUp() override
  {
    ly_ctx *made = nullptr;
    ASSERT_EQ(ly_ctx_new(CONSTRAINT_MODULES, LY_CTX_NO_YANGLIBRARY, &made), LY_SUCCESS);
    ctx.reset(made);
    for (const char *module : {"rich", "more"}) {
      ASSERT_NE(ly_ctx_load_module(made, module, nullptr, nullptr), nullptr) << ly_errmsg(made);
    }
  }

  ly_ctx_ptr ctx;
};

// More rounds, and other seeds, by hand: CONSTRAINT_ROUNDS, CONSTRAINT_SEED.
TEST_F(constraint, what_libyang_refuses_is_never_taken_for_valid)
{
  int rounds = static_cast<int>(support::number_from("CONSTRAINT_ROUNDS", 2000));
  auto seed = static_cast<uint32_t>(support::number_from("CONSTRAINT_SEED", 1));
  for (bool stores_defaults : {false, true}) {
    constraint_fuzz fuzz(ctx.get(), seed, stores_defaults);
    fuzz_counts_t counts = fuzz.run(rounds);
    ASSERT_TRUE(counts.fault.empty()) << counts.fault;
    std::printf("valid %d, undecided of these %d, refused %d\n", counts.valid, counts.undecided, counts.refused);
    EXPECT_GT(counts.valid, rounds / 10);
    EXPECT_GT(counts.refused, rounds / 10);
    // As the daemon stores defaults, the full validation must stay the exception for what is valid.
    EXPECT_TRUE(!stores_defaults || counts.undecided < counts.valid / 10) << counts.undecided;
  }
}

} // namespace
