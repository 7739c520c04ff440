#include "ymgrd/datastore/ds_publication.h"

#include <cstdint>
#include <cstring>

namespace {

// In front of each node's text: what its data path has behind its parent's.
typedef struct _journal_head {
  uint32_t depth;
  uint32_t oper_type;
  uint32_t length;
} journal_head_t;

void add_siblings(const differ_node_t *first, uint32_t depth, size_t parent_length, std::string *journal)
{
  for (const differ_node_t *node = first; node != nullptr; node = node->next) {
    size_t length = strlen(node->data_path);
    journal_head_t head = {depth, static_cast<uint32_t>(node->oper_type),
                           static_cast<uint32_t>(length - parent_length)};
    journal->append(reinterpret_cast<const char *>(&head), sizeof(head));
    journal->append(node->data_path + parent_length, length - parent_length);
    add_siblings(node->child, depth + 1, length, journal);
  }
}

} // namespace

std::string ds_journal_of(const differ_node_t *tree)
{
  std::string journal;
  add_siblings(tree, 0, 0, &journal);
  return journal;
}

bool ds_read_journal(std::string_view journal, std::vector<ds_told_t> *ret_nodes)
{
  std::vector<std::string> paths; // by depth, of the node read last and those above it
  ret_nodes->clear();
  while (!journal.empty()) {
    journal_head_t head = {};
    if (journal.size() < sizeof(head)) {
      return false;
    }
    memcpy(&head, journal.data(), sizeof(head));
    journal.remove_prefix(sizeof(head));
    if (head.depth > paths.size() || head.length == 0 || head.length > journal.size()) {
      return false;
    }
    paths.resize(head.depth);
    std::string path = paths.empty() ? std::string() : paths.back();
    path.append(journal.substr(0, head.length));
    journal.remove_prefix(head.length);
    ret_nodes->push_back({head.depth, static_cast<int>(head.oper_type), path});
    paths.push_back(std::move(path));
  }
  return true;
}
