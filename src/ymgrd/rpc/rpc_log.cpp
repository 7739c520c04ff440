#include <string>

#include "libconf/safe_string.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr size_t HEAD_SIZE = 512;
constexpr size_t SLICE_SIZE = 1000;

} // namespace

void rpc_log(int session_id, const lyxml_elem *rpc)
{
  if (!log_enabled(LOG_LEVEL_INFO)) {
    return;
  }
  const session_t *session = session_find(session_id);
  std::string username = session == nullptr ? "" : session->username;
  std::string message_id;
  (void)lyxml_get_attr(rpc, "message-id", &message_id); // stays empty when there is none
  std::string address = session == nullptr ? "" : session_client_address(*session);

  // The caps let every head fit: no choice of name or message id keeps a request out of the log.
  char head[HEAD_SIZE];
  int length = snprintf_s(head, sizeof(head),
                          "Operation information(user=\"%.128s\", from=\"%s\", message-id=\"%.128s\", content=",
                          username.c_str(), address.c_str(), message_id.c_str());
  if (length < 0) {
    log_error("Format head error, return len=%d.", length);
    return;
  }
  log_operation("%s\"%s\")", head, encrypt_print_masked(rpc).c_str());
}

void rpc_log_reply(std::span<const std::string_view> pieces)
{
  if (!log_enabled(LOG_LEVEL_INFO)) {
    return;
  }
  std::string slice;
  auto log_slice = [&slice] {
    log_operation("Operation information(content=\"%s\")", slice.c_str());
    slice.clear();
  };
  for (std::string_view piece : pieces) {
    wiped_string masked;
    if (sealed_text_is_in(piece)) {
      sealed_text_mask(piece, &masked);
      piece = masked;
    }
    while (!piece.empty()) {
      std::string_view part = piece.substr(0, SLICE_SIZE - slice.size());
      slice.append(part);
      piece.remove_prefix(part.size());
      if (slice.size() == SLICE_SIZE) {
        log_slice();
      }
    }
  }
  if (!slice.empty()) {
    log_slice();
  }
}
