#pragma once

#include <sys/types.h>

#include <string>

#include "common/Result.h"
#include "programs/launcher/InstancePlan.h"

namespace tessard {

/// The account that the components run as.
inline constexpr uid_t kComponentUser = 84;
inline constexpr gid_t kComponentGroup = 84;

/// Starts "/usr/sbin/jabberd2-NAME -c FILE" as that account: without supplementary groups, in the directory
/// "/", with the signals as a new process has them, no descriptor of this process but the two outputs, and an
/// environment of PATH and LANG. The kernel kills it when this process ends, however that happens.
///
/// Gives the process, which this one has to wait for; a program that cannot be executed fails here. Call it
/// on the main thread: the kernel looks at the thread that has started the component.
Result<pid_t> startComponent(const Component& component);

}  // namespace tessard
