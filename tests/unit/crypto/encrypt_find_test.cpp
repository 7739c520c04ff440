// Sensitive values in requests and replies: where they are found, what is refused, what the log shows of them.
#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "support/environment.h"
#include "support/working_key.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/crypto/encrypt_key.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/ymgrd.h"

namespace {

// A leaf's type for these tests: at most nine characters, in capitals when canonical.
bool check(const sensitive_config_t &, std::string_view value, wiped_string *ret_canonical)
{
  ret_canonical->clear();
  for (char c : value) {
    ret_canonical->push_back(static_cast<char>(std::toupper(c)));
  }
  return !value.empty() && value.size() <= 9;
}

class encrypt_find : public testing::Test {
protected:
  void SetUp() override
  {
    ASSERT_EQ(0, context_init(STAGE_RESOURCE));
    ASSERT_EQ(0, context_create_list("LIST-sencitive", 16));
    encrypt_set_schema({check, nullptr});
    ymgrd_set_profile_path(dir_ / "ymgrd.conf");
    std::istringstream key(support::provision_key(dir_.path()).substr(1));
    for (unsigned char &byte : g_aes_key) {
      int number = 0;
      char comma = 0;
      key >> number >> comma;
      byte = static_cast<unsigned char>(number);
    }
    for (const char *path : {"/a:top/user/password", "/a:top/b:key", "/a:set/password"}) {
      ASSERT_EQ(0, encrypt_save_sensitive(encrypt_create_sensitives(path)));
    }
    ASSERT_EQ(0, encrypt_add_ns_prefix("a", "urn:a", "a"));
    ASSERT_EQ(0, encrypt_add_ns_prefix("b", "urn:b", "b"));
  }
  void TearDown() override
  {
    context_destroy_list("LIST-sencitive",
                         [](void *leaf) { encrypt_free_sensitive(static_cast<sensitive_config_t *>(leaf)); });
    EXPECT_FALSE(encrypt_has_sensitive());
    context_exit();
    encrypt_set_schema({});
    ymgrd_set_profile_path(DEFAULT_PROFILE_PATH);
  }

  // Takes the request of that operation through encryption. -1 when it is refused.
  int protect(const std::string &oper, const std::string &content)
  {
    rpc = lyxml_parse_mem("<rpc xmlns=\"" + std::string(NETCONF_BASE_NS_1_0) + "\">" + content + "</rpc>");
    return security_find_sensitive_in_rpc(oper.c_str(), rpc.get(), SENSITIVE_ENCRYPT, &error, &changed);
  }
  int edit(const std::string &data)
  {
    return protect("/ietf-netconf:edit-config", "<edit-config><config>" + data + "</config></edit-config>");
  }
  // The request, with every cipher text shown as "{VALUE}".
  std::string shown() const
  {
    lyxml_ptr copy = lyxml_copy(rpc.get());
    std::function<void(lyxml_elem *)> open = [&](lyxml_elem *elem) {
      wiped_string value;
      if (is_cipher_text(lyxml_text(elem)) && decrypt_sensitive(lyxml_text(elem), &value) == 0) {
        lyxml_set_text(elem, "{" + std::string(value) + "}");
      }
      for (lyxml_elem *child = lyxml_first_child(elem); child != nullptr; child = lyxml_next(child)) {
        open(child);
      }
    };
    open(copy.get());
    return lyxml_print_mem(copy.get());
  }
  bool shows(const std::string &part) const { return shown().find(part) != std::string::npos; }

  support::temp_dir dir_;
  lyxml_ptr rpc;
  reply_error_ptr error;
  bool changed = false;
};

} // namespace

TEST_F(encrypt_find, what_is_no_sensitive_leaf_or_has_no_value_stays)
{
  const std::string data = "<top xmlns=\"urn:a\"><password>abc</password><user xmlns=\"urn:b\"><password>abc</password>"
                           "</user><key>abc</key><user xmlns:o=\"urn:o\" o:operation=\"delete\"><password> </password>"
                           "</user></top><top xmlns=\"urn:b\"><user><password>abc</password></user></top>";
  EXPECT_EQ(0, edit(data));
  EXPECT_FALSE(changed);
  EXPECT_TRUE(shows(data));

  ASSERT_EQ(0, edit("<top xmlns=\"urn:a\"><user><password>ABC</password></user></top>"));
  std::string protected_once = lyxml_print_mem(rpc.get());
  EXPECT_EQ(0, security_find_sensitive_in_rpc("/ietf-netconf:edit-config", rpc.get(), SENSITIVE_ENCRYPT, &error));
  EXPECT_EQ(protected_once, lyxml_print_mem(rpc.get()));
  // Looks like cipher text, but is a value.
  EXPECT_EQ(0, edit("<top xmlns=\"urn:a\"><user><password>#%X#%</password></user></top>"));
  EXPECT_TRUE(shows("{#%X#%}"));
}

TEST_F(encrypt_find, filters_match_any_namespace_and_are_not_refused)
{
  auto filter = [&](const std::string &data) {
    return protect("/ietf-netconf:get", "<get><filter>" + data + "</filter></get>");
  };
  EXPECT_EQ(0, filter("<top xmlns=\"\"><user><password>\n abc </password></user></top>"));
  EXPECT_TRUE(shows("{ABC}"));
  EXPECT_EQ(0, filter("<top><user><password>longer-than-nine</password><password/></user></top>"));
  EXPECT_TRUE(shows("{longer-than-nine}"));
  EXPECT_EQ(0, filter("<top><user><password>a b</password></user></top>"));
  EXPECT_FALSE(changed);
}

TEST_F(encrypt_find, log_shows_no_text_of_elements_that_have_a_sensitive_name)
{
  ASSERT_EQ(0, edit("<top xmlns=\"urn:a\"><user><password>abc</password></user><usr><password>SECRET</password>"
                    "<password/><note>kept</note></usr><password><old>SECRET</old></password></top>"));
  std::string before = lyxml_print_mem(rpc.get());
  std::string masked = encrypt_print_masked(rpc.get());
  EXPECT_NE(std::string::npos, masked.find("<usr><password>***</password><password/><note>kept</note></usr>"
                                           "<password><old>***</old></password>"))
      << masked;
  EXPECT_NE(std::string::npos, masked.find("<user><password>#%")) << masked;
  EXPECT_EQ(before, lyxml_print_mem(rpc.get()));
}

TEST_F(encrypt_find, sealed_values_are_opened_as_markup_and_masked_for_the_log)
{
  std::string cipher_text;
  do {
    ASSERT_EQ(0, encrypt_sensitive("<a&b>", &cipher_text));
  } while (cipher_text.find('&') == std::string::npos);
  wiped_string text = "<p>";
  sealed_text_append(cipher_text, &text);
  text.append("</p><p>");
  for (size_t at = 0; (at = cipher_text.find('&', at)) != std::string::npos; at++) {
    cipher_text.insert(at + 1, "amp;"); // as a printer of XML leaves it
  }
  sealed_text_append(cipher_text, &text);
  text.append("</p><q>");
  sealed_text_append("#%&#%", &text);
  text.append("</q>");
  ASSERT_TRUE(sealed_text_is_in(text));
  wiped_string opened;
  wiped_string masked;
  sealed_text_open(text, &opened);
  sealed_text_mask(text, &masked);
  EXPECT_EQ("<p>&lt;a&amp;b&gt;</p><p>&lt;a&amp;b&gt;</p><q>#%&amp;#%</q>", opened);
  EXPECT_EQ("<p>***</p><p>***</p><q>***</q>", masked);
  // Cut off in the middle: what follows is no text to be shown.
  sealed_text_mask(std::string_view(text).substr(0, 20), &masked);
  EXPECT_EQ("<p>***", masked);
}

TEST_F(encrypt_find, leaves_are_named_by_one_form_of_path_and_go_with_their_module)
{
  for (const char *path : {"", "/", "a:top", "/top", "/a:", "/a:top/", "/a:top//x", "/a:top/user[name='n']/x", "/a:b:c",
                           "/1a:top", "/a:top/ x"}) {
    EXPECT_EQ(nullptr, encrypt_create_sensitives(path)) << path;
  }
  sensitive_config_t *again = encrypt_create_sensitives("/a:top/a:user/a:password");
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(-1, encrypt_save_sensitive(again));
  encrypt_free_sensitive(again);
  EXPECT_EQ("urn:a", encrypt_find_sensitive("/a:top/b:key")->ns);

  ASSERT_EQ(0, encrypt_save_sensitive(encrypt_create_sensitives("/b:other/secret")));
  size_t before = encrypt_sensitives().size();
  EXPECT_EQ(before - 1, encrypt_delete_sensitive("a"));
  EXPECT_EQ(1U, encrypt_sensitives().size());
  EXPECT_FALSE(encrypt_is_sensitive_name("password"));
  EXPECT_TRUE(encrypt_is_sensitive_name("secret"));
  EXPECT_EQ(0, edit("<top xmlns=\"urn:a\"><user><password>abc</password></user></top>"));
  EXPECT_FALSE(changed);
}
