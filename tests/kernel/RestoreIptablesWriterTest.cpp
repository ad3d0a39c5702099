// How the restore writer cuts a batch into restores.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/RestoreIptablesWriter.h"

namespace {

// The real writer runs a batch as consecutive restores wherever iptables
// would crash on a replacement of a rule the same restore created or
// replaced.
TEST(RestorePartsTest, ABatchIsCutOnlyBeforeReplacementsOfFreshRules) {
  using AclUtils::RestoreIptablesWriter;
  EXPECT_EQ(RestoreIptablesWriter::restoreParts("*mangle\n-N C\n-A C -p tcp\n-A C -j ACCEPT\n"
                                                "-R C 1 -p tcp -j MARK --set-mark 0x2\n"
                                                "-R C 2 -p tcp -j ACCEPT\n-A T -i eth1 -j C\n"
                                                "COMMIT\n"),
            (std::vector<std::string>{
                "*mangle\n-N C\n-A C -p tcp\n-A C -j ACCEPT\nCOMMIT\n",
                "*mangle\n-R C 1 -p tcp -j MARK --set-mark 0x2\n-R C 2 -p tcp -j ACCEPT\n"
                "-A T -i eth1 -j C\nCOMMIT\n"}));
  // Replacing two different rules of an unchanged chain stays one restore;
  // replacing the same rule twice does not.
  EXPECT_EQ(RestoreIptablesWriter::restoreParts("*mangle\n-R C 1 x\n-R C 2 y\n-R C 1 z\nCOMMIT\n"),
            (std::vector<std::string>{"*mangle\n-R C 1 x\n-R C 2 y\nCOMMIT\n",
                                      "*mangle\n-R C 1 z\nCOMMIT\n"}));
  EXPECT_EQ(RestoreIptablesWriter::restoreParts("*mangle\nCOMMIT\n"),
            (std::vector<std::string>{"*mangle\nCOMMIT\n"}));
}

}  // namespace
