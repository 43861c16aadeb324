#pragma once

#include <sys/types.h>

#include "common/FileSystem.h"

namespace tessard {

/// The account that runs jabberd on the target system: files that the services read belong to it.
inline constexpr uid_t kServiceAccountOwner = 84;

/// Group and permissions of a configuration file: it holds secrets, so nobody but the services and root may
/// read it.
inline constexpr gid_t kConfigurationFileGroup = 0;
inline constexpr mode_t kConfigurationFilePermissions = 0600;

/// What every saved component file, the master file and its backup are given.
inline constexpr FileOwnership kConfigurationFileOwnership = {kServiceAccountOwner, kConfigurationFileGroup,
                                                              kConfigurationFilePermissions};

}  // namespace tessard
