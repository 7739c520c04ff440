#include "netconf/netconf_replies.h"

#include <algorithm>
#include <utility>

namespace {

// Errors and <ok/> are shorter; what is longer holds data.
constexpr uint32_t LONGEST_LOOKED_AT = 65535;

} // namespace

void netconf_replies::set_framing(netconf_framing framing)
{
  framing_ = framing;
  writer_.set_framing(framing);
}

void netconf_replies::await(uint16_t seq, netconf_request_t request)
{
  awaited_seq_ = seq;
  is_own_ = false;
  request_ = std::move(request);
}

void netconf_replies::await_own(uint16_t seq)
{
  awaited_seq_ = seq;
  is_own_ = true;
}

std::optional<std::string> netconf_replies::take_own_reply()
{
  return std::exchange(own_reply_, std::nullopt);
}

bool netconf_replies::take(std::string_view bytes)
{
  while (!bytes.empty()) {
    if (!is_in_frame_) {
      size_t count = std::min(bytes.size(), YMGR_FRAME_HEAD_SIZE - head_.size());
      head_.append(bytes.substr(0, count));
      bytes.remove_prefix(count);
      if (head_.size() < YMGR_FRAME_HEAD_SIZE) {
        return true;
      }
      if (!begin_frame()) {
        return false;
      }
    }
    std::string_view piece = bytes.substr(0, left_);
    take_payload(piece);
    bytes.remove_prefix(piece.size());
    left_ -= static_cast<uint32_t>(piece.size());
    if (left_ == 0) {
      end_frame();
    }
  }
  return true;
}

bool netconf_replies::begin_frame()
{
  if (!ymgr_read_frame_head(head_.data(), &frame_)) {
    return false;
  }
  head_.clear();
  is_in_frame_ = true;
  left_ = frame_.length;
  if (frame_.seq == 0) {
    way_ = way::to_client;
  } else if (frame_.seq != awaited_seq_) {
    way_ = way::dropped;
  } else {
    way_ = frame_.length <= LONGEST_LOOKED_AT ? way::looked_at : way::to_client;
  }
  return true;
}

void netconf_replies::take_payload(std::string_view piece)
{
  if (way_ == way::looked_at) {
    looked_at_.append(piece);
  } else if (way_ == way::to_client) {
    writer_.write(piece, out_);
  }
}

void netconf_replies::end_frame()
{
  is_in_frame_ = false;
  if (way_ == way::to_client) {
    writer_.end(out_);
  }
  if (frame_.seq != 0 && frame_.seq == awaited_seq_) {
    end_reply();
  }
  if (!unsaid_.empty()) {
    write_whole(std::exchange(unsaid_, std::string()));
  }
}

void netconf_replies::end_reply()
{
  const wiped_string reply = std::exchange(looked_at_, wiped_string());
  if (is_own_) {
    own_reply_ = std::string(reply);
  } else if (way_ == way::looked_at && reply.find("<rpc-error>") == wiped_string::npos) {
    has_closed_ = request_.operation == "close-session" && reply.find("<ok/>") != wiped_string::npos;
    write_whole(reply);
  } else if (way_ == way::looked_at && netconf_reply_is_to_no_xml(reply, awaited_seq_, request_)) {
    bool has_base_1_1 = framing_ == netconf_framing::chunked;
    write_whole(netconf_fault_reply(request_, netconf_fault::malformed, has_base_1_1));
  } else if (way_ == way::looked_at) {
    write_whole(netconf_standard_errors(reply));
  }
  awaited_seq_ = 0;
  request_ = netconf_request_t();
}

void netconf_replies::say(std::string message)
{
  if (is_in_frame_) {
    unsaid_ = std::move(message);
  } else {
    write_whole(message);
  }
}

void netconf_replies::write_whole(std::string_view message)
{
  writer_.write(message, out_);
  writer_.end(out_);
}
