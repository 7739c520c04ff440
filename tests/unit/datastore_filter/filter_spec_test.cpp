// Filters against the schema: what is refused, and what becomes of namespaces and values.
#include <gtest/gtest.h>

#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/schema/schema_internal.h"

namespace {

class filter_spec : public testing::Test {
protected:
  void SetUp() override
  {
    ly_log_options(LY_LOSTORE);
    ly_ctx *ctx = nullptr;
    ASSERT_EQ(ly_ctx_new(YMGR_MODULES_DIR, 0, &ctx), LY_SUCCESS);
    ly_ctx_ptr owner(ctx);
    ASSERT_NE(ly_ctx_load_module(ctx, "ex-sys", nullptr, nullptr), nullptr);
    ASSERT_NE(ly_ctx_load_module(ctx, "ex-ext", nullptr, nullptr), nullptr);
    schema_set_ctx(std::move(owner));
  }
  void TearDown() override { schema_set_ctx(nullptr); }

  // Takes the filter from a request in the protocol's namespace.
  int specify(const std::string &content)
  {
    lyxml_ptr request =
        lyxml_parse_mem("<get xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" xmlns:out=\"urn:ex-sys\"><filter>" +
                        content + "</filter></get>");
    EXPECT_NE(request, nullptr) << content;
    EXPECT_EQ(ds_get_ncfilter(request.get(), &filter_), 0);
    return ds_filter_spec(filter_.get());
  }
  // The text of the innermost first element.
  std::string value_of(const std::string &content)
  {
    EXPECT_EQ(specify("<system xmlns=\"urn:ex-sys\">" + content + "</system>"), DS_FILTER_OK) << content;
    const lyxml_elem *elem = filter_->subtree_filter.get();
    while (lyxml_first_child(elem) != nullptr) {
      elem = lyxml_first_child(elem);
    }
    return lyxml_text(elem);
  }

  std::unique_ptr<nc_filter_t> filter_;
};

} // namespace

TEST_F(filter_spec, what_the_schema_does_not_know_as_data_is_refused)
{
  for (const char *known :
       {"", "<system/>", "<system xmlns=\"\"/>",
        "<system xmlns=\"urn:ex-sys\"><user><quota xmlns=\"urn:ex-ext\"/></user><gateway/></system>",
        "<state xmlns=\"urn:ex-sys\"><event><text>x</text></event></state>",
        "<system xmlns=\"urn:ex-sys\"><vendor-data><any xmlns=\"urn:any\">x</any></vendor-data></system>"}) {
    EXPECT_EQ(specify(known), DS_FILTER_OK) << known;
  }
  for (const char *unknown : {"<restart-service xmlns=\"urn:ex-sys\"/>", "<service-failed xmlns=\"urn:ex-sys\"/>",
                              "<system xmlns=\"urn:ex-ext\"/>", "<system xmlns=\"urn:ex-sys\"><static/></system>",
                              "<system xmlns=\"urn:ex-sys\"><user><quota/></user></system>"}) {
    EXPECT_EQ(specify(unknown), DS_FILTER_UNKNOWN_NODES) << unknown;
  }
}

TEST_F(filter_spec, values_take_the_form_in_which_they_are_stored)
{
  const struct {
    const char *content;
    const char *stored;
  } cases[] = {
      {"<port> 00830 </port>", "830"},
      {"<transport>ssh</transport>", "ex-sys:ssh"},
      {"<transport xmlns:e=\"urn:ex-ext\">e:sctp</transport>", "ex-ext:sctp"},
      {"<transport>ex-ext:sctp</transport>", "ex-ext:sctp"},
      {"<location>out:there</location>", "out:there"},
      {"<drift>0.500</drift>", "0.5"},
      {"<options>lock-panel  beep</options>", "beep lock-panel"},
      {"<contact>2001:DB8:0::1</contact>", "2001:db8::1"},
      {"<watched>/out:system/out:rule[out:id=\"a:b\"]/out:action</watched>",
       "/ex-sys:system/ex-sys:rule[ex-sys:id='a:b']/ex-sys:action"},
  };
  for (const auto &row : cases) {
    EXPECT_EQ(value_of(row.content), row.stored) << row.content;
  }
}

TEST_F(filter_spec, elements_without_a_namespace_stand_for_those_of_every_module)
{
  ASSERT_EQ(specify("<system><ntp/><user><quota/></user></system><state/><system/>"), DS_FILTER_OK);
  EXPECT_EQ(ds_filter_top_paths(*filter_), (std::vector<std::string>{"/ex-sys:system", "/ex-sys:state"}));
  EXPECT_EQ(lyxml_ns(lyxml_first_child(filter_->subtree_filter.get())), "");
  ASSERT_EQ(specify("<out:system><out:user/></out:system>"), DS_FILTER_OK);
  EXPECT_EQ(lyxml_ns(lyxml_first_child(filter_->subtree_filter.get())), "urn:ex-sys");
}
