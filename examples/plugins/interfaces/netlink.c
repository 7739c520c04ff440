#include "netlink.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

enum {
  RECEIVE_MAX = 64 * 1024, /* the kernel fills up to half of it in a dump; a link with many functions takes more */
  TIMEOUT_SECONDS = 5,
  DUMP_TRIES = 5,
  GOES_ON = 1 /* more messages of the answer follow */
};

int nl_open(nl_t *ret_nl)
{
  nl_t nl = {.socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC)};
  if (nl.socket == NULL) {
    return -1;
  }
  struct timeval timeout = {.tv_sec = TIMEOUT_SECONDS};
  if (mnl_socket_bind(nl.socket, 0, MNL_SOCKET_AUTOPID) != 0 ||
      setsockopt(mnl_socket_get_fd(nl.socket), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
    int cause = errno;
    nl_close(&nl);
    errno = cause;
    return -1;
  }
  /* An older kernel lacks these, and does well without: reasons in words, errors without a copy of the request, dumps
   * of one interface. */
  int on = 1;
  (void)mnl_socket_setsockopt(nl.socket, NETLINK_EXT_ACK, &on, sizeof(on));
  (void)mnl_socket_setsockopt(nl.socket, NETLINK_CAP_ACK, &on, sizeof(on));
  (void)mnl_socket_setsockopt(nl.socket, NETLINK_GET_STRICT_CHK, &on, sizeof(on));
  *ret_nl = nl;
  return 0;
}

void nl_close(nl_t *nl)
{
  if (nl->socket != NULL) {
    (void)mnl_socket_close(nl->socket); /* nothing is left to be done about it */
    nl->socket = NULL;
  }
}

struct nlmsghdr *nl_request(char *buffer, uint16_t type, uint16_t flags, size_t header_length, void **ret_header)
{
  memset(buffer, 0, NL_REQUEST_MAX); /* attributes are padded with what is there */
  struct nlmsghdr *request = mnl_nlmsg_put_header(buffer);
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | flags;
  *ret_header = mnl_nlmsg_put_extra_header(request, header_length); /* zeroed */
  return request;
}

static int fail(nl_t *nl, int cause, const char *detail)
{
  const char *text = strerror(cause);
  (void)snprintf(nl->message, sizeof(nl->message), detail == NULL ? "%s" : "%s (%s)", text, detail);
  errno = cause;
  return -1;
}

/* The kernel's own words in an error message; null when it has none. */
static const char *words_of(const struct nlmsghdr *message, const struct nlmsgerr *error)
{
  size_t offset = sizeof(*error);
  if ((message->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
    return NULL;
  }
  if ((message->nlmsg_flags & NLM_F_CAPPED) == 0) {
    offset += mnl_nlmsg_get_payload_len(&error->msg); /* the request stands between */
  }
  if (offset >= mnl_nlmsg_get_payload_len(message)) {
    return NULL;
  }
  const struct nlattr *attribute;
  mnl_attr_for_each(attribute, message, offset)
  {
    if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0) {
      return mnl_attr_get_str(attribute);
    }
  }
  return NULL;
}

/* The end of an answer: 0, or -1. */
static int end_of_answer(nl_t *nl, const struct nlmsghdr *message)
{
  if (message->nlmsg_type == NLMSG_ERROR) {
    if (mnl_nlmsg_get_payload_len(message) < sizeof(struct nlmsgerr)) {
      return fail(nl, EBADMSG, NULL);
    }
    const struct nlmsgerr *error = mnl_nlmsg_get_payload(message);
    return error->error == 0 ? 0 : fail(nl, -error->error, words_of(message, error));
  }
  int result = 0; /* of NLMSG_DONE: a dump may fail in its middle */
  if (mnl_nlmsg_get_payload_len(message) >= sizeof(result)) {
    memcpy(&result, mnl_nlmsg_get_payload(message), sizeof(result));
  }
  return result < 0 ? fail(nl, -result, NULL) : 0;
}

/* An answer being read. After the first failure it is read to its end all the same: the kernel takes no dump while
 * another one is under way. */
typedef struct answer {
  nl_message_fn on_message;
  void *user;
  int cause; /* 0, or the first failure as errno has it; EINTR when it is no picture of one moment */
} answer_t;

static void take_message(answer_t *answer, const struct nlmsghdr *message)
{
  if (answer->cause == 0 && message->nlmsg_type >= NLMSG_MIN_TYPE && answer->on_message != NULL &&
      answer->on_message(message, answer->user) != 0) {
    answer->cause = errno;
  }
}

/* What one call to the kernel brought. GOES_ON, or the result of the whole answer. */
static int read_messages(nl_t *nl, const char *buffer, int length, answer_t *answer)
{
  for (const struct nlmsghdr *message = (const struct nlmsghdr *)buffer; mnl_nlmsg_ok(message, length);
       message = mnl_nlmsg_next(message, &length)) {
    if (message->nlmsg_seq != nl->sequence) {
      continue; /* late, to a request that was given up */
    }
    if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0 && answer->cause == 0) {
      answer->cause = EINTR;
    }
    if (message->nlmsg_type != NLMSG_ERROR && message->nlmsg_type != NLMSG_DONE) {
      take_message(answer, message);
      continue;
    }
    if (end_of_answer(nl, message) != 0) {
      return -1;
    }
    return answer->cause == 0 ? 0 : fail(nl, answer->cause, NULL);
  }
  return GOES_ON;
}

static int exchange(nl_t *nl, struct nlmsghdr *request, nl_message_fn on_message, void *user)
{
  _Alignas(struct nlmsghdr) char buffer[RECEIVE_MAX];
  request->nlmsg_seq = ++nl->sequence;
  if (mnl_socket_sendto(nl->socket, request, request->nlmsg_len) < 0) {
    return fail(nl, errno, NULL);
  }
  answer_t answer = {on_message, user, 0};
  for (;;) {
    ssize_t length = mnl_socket_recvfrom(nl->socket, buffer, sizeof(buffer));
    if (length >= 0) {
      int result = read_messages(nl, buffer, (int)length, &answer);
      if (result != GOES_ON) {
        return result;
      }
    } else if (errno == ENOBUFS || errno == ENOSPC) { /* a part was lost, or was too long */
      answer.cause = answer.cause == 0 ? errno : answer.cause;
    } else if (errno != EINTR) {
      return fail(nl, errno == EAGAIN ? ETIMEDOUT : errno, NULL);
    }
  }
}

int nl_talk(nl_t *nl, struct nlmsghdr *request, nl_message_fn on_message, void *user)
{
  request->nlmsg_flags |= NLM_F_ACK; /* so that each answer has an end */
  return exchange(nl, request, on_message, user);
}

int nl_dump(nl_t *nl, struct nlmsghdr *request, nl_message_fn on_message, void (*restart)(void *user), void *user)
{
  request->nlmsg_flags |= NLM_F_DUMP;
  for (int i = 1;; i++) {
    if (exchange(nl, request, on_message, user) == 0) {
      return 0;
    }
    /* EINTR: changed meanwhile. ENOBUFS: a part of it was lost. */
    if (i == DUMP_TRIES || (errno != EINTR && errno != ENOBUFS)) {
      return -1;
    }
    restart(user);
  }
}
