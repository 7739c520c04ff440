// The journal of a publication: what plugins were told, or were about to be, in compact form.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ymgrd/broker/differ_tree.h"

// The nodes of the tree in document order.
std::string ds_journal_of(const differ_node_t *tree);

typedef struct _ds_told {
  size_t depth = 0; // at most one more than that of the node before
  int oper_type = 0;
  std::string data_path;
} ds_told_t;
// False, with the nodes up to there, when the journal is damaged. An empty one has no nodes.
bool ds_read_journal(std::string_view journal, std::vector<ds_told_t> *ret_nodes);
