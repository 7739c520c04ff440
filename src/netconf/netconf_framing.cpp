#include "netconf/netconf_framing.h"

#include <algorithm>
#include <string>
#include <utility>

namespace {

constexpr std::string_view DELIMITER = "]]>]]>";
constexpr std::string_view END_OF_CHUNKS = "\n##\n";
// How much of the delimiter still stands at the end when the byte behind its first N does not match.
constexpr size_t STILL_MATCHED[] = {0, 0, 1, 0, 1, 2};
constexpr uint64_t LARGEST_CHUNK = 4294967295U;
// Kept of a message that is too long: where its root's start tag is looked for.
constexpr size_t KEPT_BEGINNING = 4096;
constexpr std::string_view BLANKS = " \t\r\n";

// At the end of the text, of a character in UTF-8 of which not all is there.
size_t bytes_of_cut_character(std::string_view text)
{
  for (size_t count = 1; count <= std::min<size_t>(3, text.size()); count++) {
    const auto byte = static_cast<unsigned char>(text[text.size() - count]);
    if ((byte & 0xC0) == 0x80) {
      continue; // not its first
    }
    const size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return length > count ? count : 0;
  }
  return 0;
}

void append_chunk(std::string_view bytes, wiped_string *out)
{
  if (!bytes.empty()) { // there is no chunk of no bytes
    out->append("\n#").append(std::to_string(bytes.size())).append("\n").append(bytes);
  }
}

} // namespace

netconf_read netconf_reader::take(std::string_view bytes, size_t *ret_used)
{
  return framing_ == netconf_framing::chunked ? take_chunks(bytes, ret_used) : take_until_delimiter(bytes, ret_used);
}

void netconf_reader::next()
{
  message_ = wiped_string(); // gives its memory back, wiped
  is_too_long_ = false;
  matched_ = 0;
  part_ = chunk_part::line_feed;
  has_chunk_ = false;
}

bool netconf_reader::is_between_messages() const
{
  if (framing_ == netconf_framing::chunked) {
    return !has_chunk_ && (part_ == chunk_part::line_feed || part_ == chunk_part::hash);
  }
  return message_.empty() && matched_ == 0;
}

netconf_read netconf_reader::take_until_delimiter(std::string_view bytes, size_t *ret_used)
{
  size_t pos = 0;
  while (pos < bytes.size()) {
    if (matched_ == 0) {
      size_t next = std::min(bytes.find(DELIMITER.front(), pos), bytes.size());
      store(bytes.substr(pos, next - pos));
      pos = next;
      if (pos == bytes.size()) {
        break;
      }
    }
    if (bytes[pos] != DELIMITER[matched_]) {
      size_t still = STILL_MATCHED[matched_];
      store(DELIMITER.substr(0, matched_ - still));
      matched_ = still;
      continue; // the byte is looked at again
    }
    pos++;
    if (++matched_ == DELIMITER.size()) {
      *ret_used = pos;
      return netconf_read::message;
    }
  }
  *ret_used = pos;
  return netconf_read::more;
}

netconf_read netconf_reader::take_chunks(std::string_view bytes, size_t *ret_used)
{
  size_t pos = 0;
  while (pos < bytes.size()) {
    if (part_ == chunk_part::data) {
      size_t count = static_cast<size_t>(std::min<uint64_t>(chunk_left_, bytes.size() - pos));
      store(bytes.substr(pos, count));
      pos += count;
      chunk_left_ -= count;
      part_ = chunk_left_ == 0 ? chunk_part::line_feed : chunk_part::data;
      continue;
    }
    bool is_last = part_ == chunk_part::end && bytes[pos] == '\n';
    if (!is_last && !take_chunk_head(bytes[pos])) {
      *ret_used = pos;
      return netconf_read::malformed;
    }
    pos++;
    if (is_last) {
      *ret_used = pos;
      return netconf_read::message;
    }
  }
  *ret_used = pos;
  return netconf_read::more;
}

bool netconf_reader::take_chunk_head(char byte)
{
  switch (part_) {
  case chunk_part::line_feed:
    part_ = chunk_part::hash;
    return byte == '\n';
  case chunk_part::hash:
    part_ = chunk_part::size_begin;
    return byte == '#';
  case chunk_part::size_begin:
    if (byte == '#') {
      part_ = chunk_part::end;
      return has_chunk_;
    }
    part_ = chunk_part::size;
    chunk_left_ = static_cast<uint64_t>(byte - '0');
    return byte >= '1' && byte <= '9';
  case chunk_part::size:
    if (byte == '\n') {
      part_ = chunk_part::data;
      has_chunk_ = true;
      return true;
    }
    if (byte < '0' || byte > '9') {
      return false;
    }
    chunk_left_ = chunk_left_ * 10 + static_cast<uint64_t>(byte - '0');
    return chunk_left_ <= LARGEST_CHUNK;
  case chunk_part::data:
  case chunk_part::end:
    break;
  }
  return false;
}

void netconf_reader::store(std::string_view bytes)
{
  if (message_.empty() && framing_ == netconf_framing::end_of_message) {
    bytes.remove_prefix(std::min(bytes.find_first_not_of(BLANKS), bytes.size()));
  }
  if (is_too_long_) {
    return;
  }
  if (bytes.size() <= limit_ - message_.size()) {
    message_.append(bytes);
    return;
  }
  is_too_long_ = true;
  wiped_string beginning(message_, 0, KEPT_BEGINNING);
  beginning.append(bytes.substr(0, KEPT_BEGINNING - beginning.size()));
  message_ = std::move(beginning);
}

void netconf_writer::write(std::string_view piece, wiped_string *out)
{
  if (framing_ == netconf_framing::chunked) {
    write_chunk(piece, out);
    return;
  }
  size_t pos = 0;
  while (pos < piece.size()) {
    if (matched_ == 0) {
      size_t next = std::min(piece.find(DELIMITER.front(), pos), piece.size());
      out->append(piece.substr(pos, next - pos));
      pos = next;
      if (pos == piece.size()) {
        break;
      }
    }
    if (piece[pos] != DELIMITER[matched_]) {
      matched_ = STILL_MATCHED[matched_];
      continue; // the byte is looked at again
    }
    if (++matched_ == DELIMITER.size()) {
      out->append("&gt;");
      matched_ = 0;
    } else {
      out->push_back(piece[pos]);
    }
    pos++;
  }
}

void netconf_writer::write_chunk(std::string_view piece, wiped_string *out)
{
  wiped_string joined;
  if (!kept_.empty()) {
    joined = std::exchange(kept_, wiped_string()).append(piece);
    piece = joined;
  }
  const size_t cut = bytes_of_cut_character(piece);
  kept_ = piece.substr(piece.size() - cut);
  append_chunk(piece.substr(0, piece.size() - cut), out);
}

void netconf_writer::end(wiped_string *out)
{
  append_chunk(kept_, out); // what is no UTF-8 goes out as it came
  kept_.clear();
  out->append(framing_ == netconf_framing::chunked ? END_OF_CHUNKS : DELIMITER);
  matched_ = 0;
}
