// NETCONF sessions of a test, and what it asks of replies.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "client/client.h"
#include "support/environment.h"

struct _xmlDoc;
struct _xmlNode;

namespace support {

// --- Replies.

// What is asked of the first <rpc-error>. Elements that it does not have are empty.
typedef struct _reply_error {
  std::string tag;
  std::string app_tag;
  std::string path;
  std::string message;
} rpc_error_t;

struct xml_document_delete {
  void operator()(_xmlDoc *document) const;
};
typedef std::unique_ptr<_xmlDoc, xml_document_delete> xml_document_ptr;

enum class xml_blanks { kept, dropped };                                                     // between elements
xml_document_ptr parse_xml(const std::string &xml, xml_blanks blanks = xml_blanks::dropped); // null when it is none
std::vector<const _xmlNode *> child_elements(const _xmlNode *node);

std::optional<rpc_error_t> find_error(const std::string &reply); // nothing when the reply is no error
bool is_ok(const std::string &reply);
// Text of the first element of that name, at any depth.
std::optional<std::string> find_text(const std::string &xml, std::string_view name);

// by_name: those of one name keep their order.
enum class siblings { in_order, by_name, sorted };
// One form for equal documents: namespaces where they change and without prefixes, also in texts, attributes sorted,
// blanks between elements dropped. Text that is no XML is returned as it is.
std::string normalize(const std::string &xml, siblings order = siblings::in_order);
// The same for an element of a parsed document. Its namespace is named only when it is not `outer_namespace`.
std::string normalize(const _xmlNode *element, std::string_view outer_namespace, siblings order);
// The content of the reply's <data>, normalized; the whole reply when it has none.
std::string reply_data(const std::string &reply, siblings order = siblings::in_order);

// --- Operations, as text for netconf_session.

// `options` stands between target and config: <default-operation>, <test-option>, <error-option>.
std::string edit_config(const std::string &target, const std::string &config, const std::string &options = "");
std::string get_config(const std::string &source);
// The source as an element: "<running/>".
std::string copy_config(const std::string &target, const std::string &source);
// The whole request.
std::string rpc_of(const std::string &operation, const std::string &message_id = "1");
constexpr char COMMIT[] = "<commit/>";
constexpr char DISCARD_CHANGES[] = "<discard-changes/>";

// --- Sessions.

bool is_closed_by_daemon(ymgr_client_t *client); // waits for it

class netconf_session {
public:
  // Connects and performs create-session. A failure fails the test.
  explicit netconf_session(const std::string &run_dir, const std::string &username = "tester");

  int id() const { return id_; } // 0 when there is no session
  ymgr_client_t *client() const { return client_.get(); }
  void close() { client_.reset(); }

  // The reply. When none comes, the test fails and the reply is empty.
  std::string rpc(const std::string &operation, std::chrono::milliseconds timeout = DEADLINE);
  // Success when the reply is <ok/>; a failure carries request and reply.
  testing::AssertionResult ok(const std::string &operation);
  // The reply's error. When the reply is none, the test fails and all is empty.
  rpc_error_t error(const std::string &operation);

  // A request without waiting for its reply, and the payload of the next frame; empty when none comes.
  bool send(const std::string &operation);
  std::string receive();
  // The next notification, whatever else has come; empty when none comes in time.
  std::string next_notification(std::chrono::milliseconds timeout = DEADLINE);

  // Requests and replies so far, for a failing test.
  std::string conversation() const;

private:
  ymgr_client_ptr client_;
  int id_ = 0;
  std::vector<std::string> lines_;
};

} // namespace support
