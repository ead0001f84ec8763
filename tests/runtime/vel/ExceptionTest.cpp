// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "runtime/vel/Types.h"
#include "runtime/vel/private/Assert.h"

namespace Vel {

// The assertions' lines are part of what they print.
constexpr int assertionLine = __LINE__ + 1;
void requirePositive(int number) { VEL_ASSERT("JoinPruneSm", number > 0); }
constexpr int namedAssertionLine = __LINE__ + 1;
void requireNothing(bool holds) { VEL_ASSERT_AS("JoinPruneSm", holds, "false"); }

namespace {

using testing::HasSubstr;

// What is thrown, as the text that `Caught` sees.
template <class Caught>
std::string textOfThrown(std::function<void()> const& call) {
  try {
    call();
  } catch (Caught const& error) {
    return error.what();
  } catch (...) {
    return "something else was thrown";
  }
  return "nothing was thrown";
}

TEST(ExceptionTest, EachRefusalHasItsTextAndCanBeCaughtAsAnyOfItsBases) {
  std::pair<std::function<void()>, std::string> const rows[] = {
      {throwNullPtr, "null ValidPtr"},
      {throwConstInstance, "attempting to modify a const instance"},
      {[] { throwReinstantiation("_intf", "new", "old"); },
       "Reinstantiating the pointer interface where constructor parameter attribute _intf has a different "
       "value of new than the current value of old"},
  };
  for (auto const& [call, text] : rows) {
    EXPECT_EQ(textOfThrown<RangeException>(call), text);
    EXPECT_EQ(textOfThrown<std::range_error>(call), text);
    EXPECT_EQ(textOfThrown<std::exception>(call), text);
    EXPECT_EQ(textOfThrown<InvalidArgumentException>(call), "something else was thrown");
  }
}

TEST(ExceptionTest, ANullParameterIsAnInvalidArgumentAndItsTextEndsInAQuote) {
  auto const call = [] { throwNullParameter("_pimIntf", "Routing::Pim::JoinPruneMessageSm::pimIntf"); };
  char const* const text =
      "null _pimIntf parameter to mutator for Routing::Pim::JoinPruneMessageSm::pimIntf not allowed\"";
  EXPECT_EQ(textOfThrown<InvalidArgumentException>(call), text);
  EXPECT_EQ(textOfThrown<RangeException>(call), text);
  EXPECT_EQ(textOfThrown<std::exception>(call), text);
}

TEST(ExceptionTest, AParameterThatIsTheSameIsAccepted) {
  EXPECT_NO_THROW(requireSameParameter("_overrideInterval", 2.5, 2.5));
  EXPECT_EQ(textOfThrown<RangeException>([] { requireSameParameter("_overrideInterval", 3.0, 2.5); }),
            "Reinstantiating the pointer interface where constructor parameter attribute _overrideInterval "
            "has a different value of 3 than the current value of 2.5");
}

TEST(AssertDeathTest, AnAssertionPrintsProgramSourceLineFunctionAndExpression) {
  std::string const program = program_invocation_short_name;
  requirePositive(1);
  EXPECT_DEATH(requirePositive(0), HasSubstr(program + ": JoinPruneSm:" + std::to_string(assertionLine) +
                                             ": void Vel::requirePositive(int): Assertion `number > 0' "
                                             "failed.\n"));
}

TEST(AssertDeathTest, AnAssertionMayHaveATextOfItsOwn) {
  std::string const program = program_invocation_short_name;
  requireNothing(true);
  EXPECT_DEATH(requireNothing(false),
               HasSubstr(program + ": JoinPruneSm:" + std::to_string(namedAssertionLine) +
                         ": void Vel::requireNothing(bool): Assertion `false' "
                         "failed.\n"));
}

TEST(AssertDeathTest, AnAssertionEvaluatesItsExpressionOnce) {
  int evaluated = 0;
  VEL_ASSERT("JoinPruneSm", ++evaluated == 1);
  EXPECT_EQ(evaluated, 1);
}

TEST(AssertDeathTest, AnAssertionAborts) {
  EXPECT_EXIT(requirePositive(0), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace Vel
