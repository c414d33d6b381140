#include "update/FileGate.h"

#include <gtest/gtest.h>

#include <string>

using zrv::update::FileGate;

TEST(FileGate, BoundsFilesAndBytesInFlightInTheirOrder) {
  FileGate gate(3, 100);
  std::string started;
  auto enter = [&](std::uintmax_t bytes, char name) { gate.enter(bytes, [&, name] { started += name; }); };
  enter(60, 'a');
  enter(60, 'b');  // over the byte budget beside a: waits
  enter(10, 'c');  // would fit, but does not overtake b
  EXPECT_EQ(started, "a");
  gate.leave(60);
  EXPECT_EQ(started, "abc");
  enter(500, 'd');  // larger than the whole budget: goes once it is alone
  gate.leave(60);
  EXPECT_EQ(started, "abc");
  gate.leave(10);
  EXPECT_EQ(started, "abcd");
  for (char name : {'e', 'f', 'g', 'h'}) enter(0, name);  // the count still bounds small files
  EXPECT_EQ(started, "abcd");
  gate.leave(500);
  EXPECT_EQ(started, "abcdefg");
}
