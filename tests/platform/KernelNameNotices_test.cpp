#include "platform/KernelNameNotices.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "tests/support/NetworkNamespace.h"
#include "tests/support/OwnHostName.h"

namespace tessard {
namespace {

bool wasSet(const KernelNameNotices& notices) {
  pollfd state{notices.descriptor(), POLLPRI, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & POLLPRI) != 0;
}

TEST(KernelNameNotices, TellThatTheNameWasSet) {
  if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
  const OwnHostName own;
  const auto notices = KernelNameNotices::open();
  ASSERT_TRUE(notices.ok()) << notices.error().description();
  for (const char* name : {"one.example.com", "two.example.com"}) {
    // Other machines of this kernel may have been given a name meanwhile.
    while (wasSet(notices.value())) continue;
    own.set(name);
    EXPECT_TRUE(wasSet(notices.value()));
  }
}

}  // namespace
}  // namespace tessard
