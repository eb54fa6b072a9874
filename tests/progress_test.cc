// Progress lines may appear only on a terminal: when standard error is a
// file, a long step must leave it untouched.
#include "progress.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

TEST(Progress, NothingReachesAFile) {
  char path[] = "/tmp/mhboost-progress-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  fflush(stderr);
  const int saved = dup(STDERR_FILENO);
  dup2(fd, STDERR_FILENO);
  for (int i = 0; i < 4; ++i) {
    Progress_Update("reading examples", 1000L * i, "examples");
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
  }
  Progress_Done();
  fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  EXPECT_EQ(lseek(fd, 0, SEEK_END), 0);
  close(fd);
  unlink(path);
}
