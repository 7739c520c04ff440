// Exclusivity of the cases of a choice (RFC 7950, section 7.9): a node of one case removes the nodes of all others.
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/edit_internal.h"

namespace {

int erase_case(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *choice_case,
               differ_list *diff);

int erase_instances(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *schema,
                    differ_list *diff)
{
  size_t parent_length = parent_key->size();
  edit_place_t place{parent, parent_key};
  while (lyd_node *instance = edit_find_schema(job, parent, schema)) {
    dbkey_append(parent_key, instance);
    int result = edit_erase(job, place, instance, diff);
    parent_key->resize(parent_length);
    if (result != 0) {
      log_error("clear choice case fail.");
      return -1;
    }
  }
  return 0;
}

int erase_choice(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *choice, differ_list *diff)
{
  for (const lysc_node *each = lysc_node_child(choice); each != nullptr; each = each->next) {
    if (erase_case(job, parent, parent_key, each, diff) != 0) {
      return -1;
    }
  }
  return 0;
}

int erase_case(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *choice_case,
               differ_list *diff)
{
  for (const lysc_node *node = lysc_node_child(choice_case); node != nullptr; node = node->next) {
    int result = node->nodetype == LYS_CHOICE ? erase_choice(job, parent, parent_key, node, diff)
                                              : erase_instances(job, parent, parent_key, node, diff);
    if (result != 0) {
      return -1;
    }
  }
  return 0;
}

} // namespace

int edit_clear_choice_case(edit_job_t *job, lyd_node *parent, std::string *parent_key, const lysc_node *schema,
                           differ_list *diff)
{
  for (const lysc_node *chosen = schema->parent; chosen != nullptr && chosen->nodetype == LYS_CASE;
       chosen = chosen->parent->parent) {
    const lysc_node *choice = chosen->parent;
    auto known = job->chosen_cases.find(choice);
    if (known != job->chosen_cases.end() && known->second.contains(parent) && known->second[parent] == chosen) {
      continue;
    }
    for (const lysc_node *other = lysc_node_child(choice); other != nullptr; other = other->next) {
      if (other != chosen && erase_case(job, parent, parent_key, other, diff) != 0) {
        return -1;
      }
    }
    job->chosen_cases[choice][parent] = chosen;
  }
  return 0;
}
