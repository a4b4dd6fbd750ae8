// SPDX-License-Identifier: Apache-2.0
// Fakes of the logger and the properties, for the tests of this folder. One thread.
#pragma once

#include <string>
#include <vector>

#define TEST_EXPORT __attribute__((visibility("default")))

namespace fakes {

/// The lines logged so far, as "priority tag: text".
TEST_EXPORT std::vector<std::string>& LogLines();
/// Sets the value of property `name`; all others are unset.
TEST_EXPORT void SetProperty(const std::string& name, const std::string& value);

}  // namespace fakes
