// Frames of the stream sockets: a head of 12 bytes in machine byte order, then the payload. The head is a 32-bit magic,
// the payload's 32-bit length, and two 16-bit numbers that belong to the protocol.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libconf/conf_buffer.h"

constexpr uint32_t CONF_FRAME_MAGIC = 0xFEDCBAFFU;
constexpr size_t CONF_FRAME_HEAD_SIZE = 12;

typedef enum _conf_frame_result {
  CONF_FRAME_WHOLE,     // a whole frame is at the front of the buffer
  CONF_FRAME_MORE,      // it is not complete yet
  CONF_FRAME_END,       // the peer sends nothing more
  CONF_FRAME_TOO_LONG,  // its payload is longer than allowed
  CONF_FRAME_NO_MEMORY, // there is no room for it
  CONF_FRAME_ERROR,     // the socket has failed, with errno
} conf_frame_result_t;

// Reads from a non-blocking socket until a whole frame is there, never beyond it: what follows stays in the socket.
// Bytes in front of a magic are dropped; a peer that sends many of them gets CONF_FRAME_MORE, so that others have their
// turn.
conf_frame_result_t conf_frame_receive(int sock, conf_buffer_t *buffer, uint32_t max_length);
// Payload length of the frame at the front; only while its head is there.
uint32_t conf_frame_length(const conf_buffer_t *buffer);
