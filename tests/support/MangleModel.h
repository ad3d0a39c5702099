// The mangle table as the lines written so far leave it, replayed by the
// start-up transaction's own model (Kernel::MangleTransaction), so that tests
// can state what a chain holds after any sequence of batches. The first
// lines must be the dispatch chain's set-up, which empties the table; a line
// the model cannot replay fails the test.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/MangleTransaction.h"

namespace waymark::test {

class MangleModel {
 public:
  using Rules = std::vector<std::string>;

  void apply(const std::vector<std::string>& lines) {
    std::string batch;
    for (const auto& line : lines) batch += line + "\n";
    EXPECT_TRUE(transaction_.add(batch)) << "cannot replay:\n" << batch;
  }
  // The chain's rules (their match and target, as written), in order.
  const Rules& chain(const std::string& name) const {
    static const Rules kNone;
    const Rules* rules = transaction_.rules(name);
    return rules == nullptr ? kNone : *rules;
  }
  bool hasChain(const std::string& name) const { return transaction_.rules(name) != nullptr; }

 private:
  Kernel::MangleTransaction transaction_;
};

}  // namespace waymark::test
