// Configurations in files, as an operator keeps them.
#pragma once

#include <string>
#include <string_view>

#include "ctl/ctl_device.h"

// Puts `text` in the place of the file, readable by its owner only, once it is safely on the disk; what stood there
// before stays until then. The exit code.
int ctl_replace_file(const ctl_output_t &output, const std::string &path, std::string_view text);

// XML or JSON: by what was asked for ("xml", "json", "auto"), by the ending of the name, by how the text begins.
ctl_format ctl_file_format(std::string_view choice, std::string_view path, std::string_view text);
// The top elements of an XML file as they are, without what only wraps them: <config>, <data>, <rpc-reply>, <rpc>. The
// exit code; CTL_INPUT names the line of the fault.
int ctl_read_elements(const ctl_output_t &output, const std::string &path, std::string *ret_elements);
// The content of <config> that the file says: in XML its top elements, alone or in <config>, <data> or <rpc-reply>,
// with NETCONF's operation attributes as they are. Checked against the schema as far as that is possible without the
// rest of the configuration; CTL_INPUT names line and place of the fault.
int ctl_read_config(ctl_device &device, const std::string &path, std::string_view format, std::string *ret_config);
// `tree` as JSON.
int ctl_encode_json(const ctl_output_t &output, const lyd_node *tree, std::string *ret_text);
// The elements in a reply's <data>, on lines of their own where that does not change a value.
int ctl_layout_config(ctl_device &device, const std::string &reply, std::string *ret_xml);
