// Owners of the handles of C libraries: one place that names each library's release call.
#pragma once

#include <cstdlib>
#include <memory>

#include <cjson/cJSON.h>
#include <dlfcn.h>
#include <hiredis/hiredis.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libyang/libyang.h>

#include "libconf/unique_fd.h"

template <auto fn>
struct c_delete_t {
  template <class T>
  void operator()(T *pointer) const
  {
    fn(pointer);
  }
};

inline void lyd_tree_release(lyd_node *tree)
{
  lyd_free_all(tree);
}
inline void c_string_release(char *text)
{
  std::free(text);
}

using lyd_tree_ptr = std::unique_ptr<lyd_node, c_delete_t<lyd_tree_release>>; // owns the whole tree and its siblings
using ly_ctx_ptr = std::unique_ptr<ly_ctx, c_delete_t<ly_ctx_destroy>>;
using xml_doc_ptr = std::unique_ptr<xmlDoc, c_delete_t<xmlFreeDoc>>;
using xml_buffer_ptr = std::unique_ptr<xmlBuffer, c_delete_t<xmlBufferFree>>;
using cjson_ptr = std::unique_ptr<cJSON, c_delete_t<cJSON_Delete>>;
using shared_object_ptr = std::unique_ptr<void, c_delete_t<dlclose>>;
using c_string_ptr = std::unique_ptr<char, c_delete_t<c_string_release>>; // text made by malloc
