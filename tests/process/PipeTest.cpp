// The pipe and its reader: the availability query, reads that never wait
// unless asked to, and drainPipe collecting everything waiting in pieces.

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "core/Pipe.h"
#include "core/VelAssert.h"

namespace {

void WriteAll(VeltPipeHandle fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

TEST(Pipe, DrainCollectsEverythingWaitingAndNeverWaits) {
  CPipe pipe;
  ASSERT_TRUE(pipe.CreatePipe());
  ScopedAssertCapture asserts;
  AString output;
  // Nothing waiting while the write end is open: returns at once, empty.
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_TRUE(output.empty());

  // More than one 14096-byte piece, with a two-byte character across the
  // boundary of the first piece: the bytes come out as they went in.
  std::string bytes(50000, 'x');
  bytes.replace(14095, 2, "ü");
  bytes[49999] = '\xff';  // not UTF-8 at all
  WriteAll(pipe.WriteHandle(), bytes);
  CPipeCommunicator communicator(pipe.ReadHandle());
  int count = 0;
  char unused = 0;
  EXPECT_EQ(communicator.Read(&unused, 1, count, false, 0, false), 0);
  EXPECT_EQ(count, 50000) << "the query reports what waits and reads nothing";
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(VEL_ANSI(output), bytes);
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(VEL_ANSI(output).size(), 50000u);
  EXPECT_TRUE(asserts.reports().empty());

  EXPECT_NE(drainPipe(kVeltNullPipeHandle, output), 0);
}

TEST(Pipe, ReadsWaitOnlyAsLongAsAskedTo) {
  CPipe pipe;
  ASSERT_TRUE(pipe.CreatePipe());
  CPipeCommunicator communicator(pipe.ReadHandle());
  char buffer[16];
  int count = -1;
  EXPECT_EQ(communicator.Read(buffer, sizeof buffer, count, true, 0, true), 0);
  EXPECT_EQ(count, 0);

  WriteAll(pipe.WriteHandle(), "abcde");
  EXPECT_EQ(communicator.Read(buffer, sizeof buffer, count, true, 20, false), 0);
  EXPECT_EQ(std::string(buffer, count), "abcde") << "a short wait gives what came";

  WriteAll(pipe.WriteHandle(), "0123456789abcdefXYZW");
  EXPECT_EQ(communicator.Read(buffer, 4, count, true, 0, true), 0);
  EXPECT_EQ(std::string(buffer, count), "0123");
  EXPECT_EQ(communicator.Read(buffer, sizeof buffer, count, true, -1, false), 0);
  EXPECT_EQ(std::string(buffer, count), "456789abcdefXYZW") << "the full buffer ends the read";

  // With every writer gone a read without limit returns instead of hanging.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  WriteAll(ends[1], "end");
  close(ends[1]);
  CPipeCommunicator last(ends[0]);
  EXPECT_EQ(last.Read(buffer, sizeof buffer, count, true, -1, false), 0);
  EXPECT_EQ(std::string(buffer, count), "end");
  close(ends[0]);
}

}  // namespace
