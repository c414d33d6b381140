#include "update/FileGate.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

using zrv::update::FileGate;

TEST(FileGate, BoundsFilesAndBytesInFlightInTheirOrder) {
  auto gate = FileGate::make(3, 100);
  std::string started;
  std::map<char, FileGate::Ticket> tickets;
  auto enter = [&](std::uintmax_t bytes, char name) {
    gate->enter(bytes, [&, name](FileGate::Ticket ticket) {
      started += name;
      tickets[name] = std::move(ticket);
    });
  };
  enter(60, 'a');
  enter(60, 'b');  // over the byte budget beside a: waits
  enter(10, 'c');  // would fit, but does not overtake b
  EXPECT_EQ(started, "a");
  tickets['a'].release();
  EXPECT_EQ(started, "abc");
  enter(500, 'd');  // larger than the whole budget: goes once it is alone
  tickets['b'].release();
  EXPECT_EQ(started, "abc");
  { FileGate::Ticket goesAway = std::move(tickets['c']); }  // a ticket that goes away gives its place back too
  EXPECT_EQ(started, "abcd");
  for (char name : {'e', 'f', 'g', 'h'}) enter(0, name);  // the count still bounds small files
  EXPECT_EQ(started, "abcd");
  FileGate::Ticket moved = std::move(tickets['d']);
  tickets['d'].release();  // moved from: holds no place, gives nothing back
  EXPECT_EQ(started, "abcd");
  moved.release();
  moved.release();  // released: empty, a second release gives nothing back
  EXPECT_EQ(started, "abcdefg");
  EXPECT_FALSE(moved);
  for (char name : {'e', 'f', 'g'}) tickets[name].release();  // not from the map's destructor: h enters it
  EXPECT_EQ(started, "abcdefgh");
}
