// The two framings of NETCONF over SSH (RFC 6242): end-of-message, which every session begins with, and chunks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "libconf/wiped_string.h"

enum class netconf_framing { end_of_message, chunked };

enum class netconf_read { more, message, malformed };

// Takes messages out of what a client sends, in pieces of any length.
class netconf_reader {
public:
  explicit netconf_reader(size_t limit) : limit_(limit) {}

  void set_limit(size_t limit) { limit_ = limit; }
  void set_framing(netconf_framing framing) { framing_ = framing; } // only between two messages

  // Takes bytes from the front, never beyond the end of a message. After `message`, next() must be called; after
  // `malformed` the rest of the stream means nothing.
  netconf_read take(std::string_view bytes, size_t *ret_used);
  void next();

  // The message, without blanks in front when end-of-message separates it from another. Of one that is longer than the
  // limit only the beginning is kept.
  wiped_string &message() { return message_; }
  bool is_too_long() const { return is_too_long_; }
  bool is_between_messages() const; // nothing but blanks of the next one has come

private:
  enum class chunk_part { line_feed, hash, size_begin, size, data, end };

  netconf_read take_until_delimiter(std::string_view bytes, size_t *ret_used);
  netconf_read take_chunks(std::string_view bytes, size_t *ret_used);
  bool take_chunk_head(char byte); // false when it is none
  void store(std::string_view bytes);

  size_t limit_;
  netconf_framing framing_ = netconf_framing::end_of_message;
  wiped_string message_;
  bool is_too_long_ = false;
  size_t matched_ = 0; // bytes of the delimiter that came last
  chunk_part part_ = chunk_part::line_feed;
  uint64_t chunk_left_ = 0; // bytes of the chunk; its size while that is read
  bool has_chunk_ = false;
};

// Frames messages that are written piece by piece.
class netconf_writer {
public:
  void set_framing(netconf_framing framing) { framing_ = framing; } // only between two messages
  // Appends the next piece of the message to `out`. With end-of-message, what would look like the delimiter is written
  // as a reference to a character, which means the same wherever XML allows it at all. A chunk ends with a whole
  // character: RFC 6242 does not ask for that, but common clients decode each chunk for itself.
  void write(std::string_view piece, wiped_string *out);
  void end(wiped_string *out);

private:
  void write_chunk(std::string_view piece, wiped_string *out);

  netconf_framing framing_ = netconf_framing::end_of_message;
  size_t matched_ = 0; // bytes of the delimiter that were written last
  wiped_string kept_;  // the beginning of a character that the next chunk begins with
};
