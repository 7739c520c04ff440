#include <gtest/gtest.h>

#include "ymgrd/rpc/rpc_reply.h"

TEST(rpc_build_reply, errors_stand_newest_first_in_base_1_0_with_the_attributes_of_the_request)
{
  lyxml_ptr rpc = lyxml_parse_mem("<rpc message-id=\"101\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.1\" "
                                  "xmlns:e=\"u:e\" e:user=\"a&amp;b\"><get/></rpc>");
  reply_error_t *chain = rpc_append_error(nullptr, REPLY_ERR_NULL);
  rpc_set_error_field(chain, REPLY_ERR_FIELD_INFO, "<b/>");
  rpc_set_error_field(chain, REPLY_ERR_FIELD_APPTAG, "too-few");
  chain = rpc_append_error(rpc_append_error(chain, REPLY_ERR_NULL), REPLY_ERR_IN_USE);
  rpc_set_error_field(chain->next, REPLY_ERR_FIELD_MSG, "second");
  lyxml_ptr reply = rpc_build_reply_error(rpc.get(), reply_error_ptr(chain));
  ASSERT_NE(nullptr, reply);
  EXPECT_EQ("<rpc-reply xmlns:e=\"u:e\" xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\" message-id=\"101\" "
            "e:user=\"a&amp;b\">"
            "<rpc-error><error-type>application</error-type><error-tag>in-use</error-tag>"
            "<error-severity>error</error-severity><error-path></error-path>"
            "<error-message>The request requires a resource that is already in use.</error-message></rpc-error>"
            "<rpc-error><error-message>second</error-message></rpc-error>"
            "<rpc-error><error-app-tag>too-few</error-app-tag><error-info>&lt;b/&gt;</error-info></rpc-error>"
            "</rpc-reply>",
            lyxml_print_mem(reply.get()));
}
