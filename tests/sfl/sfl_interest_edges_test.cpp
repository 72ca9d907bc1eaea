// Interest exchanges that go wrong half way: a reply that a failed receive
// left in the queue must not be taken as the answer to the next request.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "os.h"
#include "sfl_int.h"
#include "test_env.h"
#include "test_util.h"

namespace {

TEST(InterestEdges, AReplyLeftByAFailedExchangeIsNotTakenForTheNext) {
  sfltest::OpenContainer c = sfltest::NewContainer();
  sfl_BaseRec* rec = sfl_Handle2Record(c.bh);
  sfl_CheckBaseInterest(rec);
  ASSERT_EQ(rec->ProcAccCount, 1u);

  // Every receive of the check fails: the escape passes on, and the
  // service's reply (one process) stays in the queue.
  os_FailNth(os_Op::Msgrcv, 1, EIO, 3);
  const sfltest::Escape e = sfltest::EscapeOf([&] { sfl_CheckBaseInterest(rec); });
  os_ClearFaults();
  EXPECT_EQ(e.group, ER_GROUP_OS);
  EXPECT_EQ(e.reason, EIO);
  usleep(200000);  // the reply is in the queue by now

  // A second process takes an interest; the next check must count it.
  sfltest::Gate opened, done;
  const int child = sfltest::StartChild([&] {
    const int32_t bh = sfl_OpenSfl(&c.ref, 1);
    opened.Open();
    done.Wait();
    sfl_CloseFile(bh);
    return 0;
  });
  opened.Wait();
  sfl_CheckBaseInterest(rec);
  EXPECT_EQ(rec->ProcAccCount, 2u);
  EXPECT_EQ(rec->OtherInterest, 1u);
  done.Open();
  EXPECT_EQ(sfltest::WaitChild(child), 0);
  sfl_CloseFile(c.bh);
}

}  // namespace
