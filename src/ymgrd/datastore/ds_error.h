// NETCONF errors made from what libyang reports.
#pragma once

#include "ymgrd/rpc/rpc_error.h"

// To be called before each libyang call whose failure is reported: forgets earlier errors.
void ds_clear_yang_errors();
// Sets path, message and app-tag of the record from libyang's first error, where it gives them.
void ds_add_path_and_msg(reply_error_t *error);
// The error kind that libyang's first error stands for (unknown-namespace, data-missing, ...). Violations that have no
// kind of their own are `data_kind`, everything else (syntax, memory) is `other_kind`.
int ds_error_kind(int data_kind, int other_kind);
