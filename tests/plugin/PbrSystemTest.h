// The fixture of tests that drive the whole router core: a PbrSystem per
// test.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/PbrSystem.h"

namespace waymark::test {

class PbrSystemTest : public ::testing::Test, public PbrSystem {};

}  // namespace waymark::test
