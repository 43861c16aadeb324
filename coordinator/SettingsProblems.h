#pragma once

#include <optional>
#include <string>

#include "common/ServiceTypes.h"

namespace tessard {

/// What keeps settings from being written, as a sentence that names the key: a value that cannot be read as
/// what its key asks (a fraction as a port, an array as a path), text that no configuration file can hold, or
/// one that jabberd would not start with or take for something else.
/// Absent when there is nothing. Keys that belong to no service are not looked at beyond their text.
std::optional<std::string> problemWithSettings(const SettingsDictionary& settings);

/// What is wrong with the list of hosts in settings whose names are filtered already: no host at all, or one
/// that cannot be a domain. The comma-separated form counts where both are there.
std::optional<std::string> problemWithHosts(const SettingsDictionary& filtered);

/// What is wrong with a request to add or remove a client service: "service" and "hostName" must be texts,
/// and everything in it text that a configuration file can hold, without control characters.
std::optional<std::string> problemWithServiceRequest(const Dictionary& request);

}  // namespace tessard
