// What the schema says of sensitive leaves in XML, before that is parsed into data.
#pragma once

#include <string>
#include <string_view>

#include "libconf/wiped_string.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/rpc/lyxml.h"

// schema_check_sensitive() for a leaf of the registry. One that the schema does not have is taken as it stands: the
// request fails when it is parsed.
bool schema_check_sensitive_value(const sensitive_config_t &leaf, std::string_view value, wiped_string *ret_canonical);
// The path of the instance that `elem` stands for, in the form of libyang's paths, as far as its lists' keys are given.
std::string schema_sensitive_instance(const sensitive_config_t &leaf, const lyxml_elem *elem);
