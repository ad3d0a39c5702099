#include "framework/Trace.h"

#include <gtest/gtest.h>

#include "tests/support/TraceCapture.h"

namespace {

using waymark::test::TraceCapture;

void tracedOperation(double t) { VIX_TRACE(9, "Codef starting at " << t); }

TEST(TraceTest, ARecordCarriesLevelFunctionFileLineAndText) {
  TraceCapture capture;
  tracedOperation(1.5);
  ASSERT_EQ(capture.records().size(), 1u);
  const auto& r = capture.records()[0];
  EXPECT_EQ(r.level, 9);
  EXPECT_EQ(r.function, "tracedOperation");
  EXPECT_EQ(r.file, "PbrAclPlugin");
  EXPECT_GT(r.line, 0);
  EXPECT_EQ(r.text, "Codef starting at 1.5");
}

TEST(TraceTest, NumbersAreWrittenWithTwelveSignificantDigits) {
  TraceCapture capture;
  tracedOperation(1234567.123456789);
  tracedOperation(0.1 + 0.2);
  EXPECT_EQ(capture.texts(9),
            (std::vector<std::string>{"Codef starting at 1234567.12346", "Codef starting at 0.3"}));
}

TEST(TraceTest, LevelsAboveTheSinksLevelAreNeitherComposedNorWritten) {
  TraceCapture capture(4);
  int composed = 0;
  auto count = [&] { return ++composed; };
  VIX_TRACE(8, "entry " << count());
  VIX_TRACE(4, "Running command: " << count());
  EXPECT_EQ(composed, 1);
  EXPECT_EQ(capture.texts(4), (std::vector<std::string>{"Running command: 1"}));
  EXPECT_TRUE(capture.texts(8).empty());
}

TEST(TraceTest, WithoutASinkNothingIsComposed) {
  Vix::Trace::sinkIs(nullptr, 9);
  int composed = 0;
  VIX_TRACE(0, ++composed);
  EXPECT_EQ(composed, 0);
}

}  // namespace
