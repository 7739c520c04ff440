// A case file: what is sent in which session, and what is to come back. README.md describes the format.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include "support/netconf_session.h"

enum class step_kind {
  request,   // send, and compare the reply
  datastore, // compare what a datastore holds
  close,     // the client drops the connection
  ended,     // the daemon has ended the connection
  restart,   // the daemon ends and starts again
};

typedef struct _conformance_step {
  step_kind kind = step_kind::request;
  std::string session; // "a" unless the case names another
  std::string request; // an operation, or the whole payload when `is_raw`
  bool is_raw = false;
  const xmlNode *expect = nullptr; // its children are compared; owned by the case's document
  int line = 0;
} conformance_step_t;

typedef struct _conformance_case {
  support::xml_document_ptr document;
  std::string start; // content of running before the first step; may be empty
  std::vector<conformance_step_t> steps;
} conformance_case_t;

std::string node_name(const xmlNode *node);
std::string attribute(const xmlNode *node, const char *name, const std::string &fallback = "");

// A failure says where the file is not of the format.
testing::AssertionResult load_case(const std::string &path, conformance_case_t *ret_case);
