#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "netconf/netconf_framing.h"
#include "support/environment.h"

namespace {

using messages_t = std::vector<std::string>;
constexpr size_t LIMIT = 100;

// What a reader finds in `stream` when it is fed pieces that end at the positions in `cuts`. Nothing when it finds the
// stream malformed. A message that is too long is "(too long)" and what is left of it.
std::optional<messages_t> read_all(netconf_framing framing, const std::string &stream, std::vector<size_t> cuts = {})
{
  netconf_reader reader(LIMIT);
  reader.set_framing(framing);
  messages_t messages;
  cuts.push_back(stream.size());
  size_t begin = 0;
  for (size_t cut : cuts) {
    while (begin < cut) {
      size_t used = 0;
      netconf_read result = reader.take(std::string_view(stream).substr(begin, cut - begin), &used);
      EXPECT_LE(used, cut - begin);
      begin += used;
      if (result == netconf_read::malformed) {
        return std::nullopt;
      }
      EXPECT_TRUE(result == netconf_read::message || begin == cut) << "bytes were left";
      if (result == netconf_read::message) {
        messages.push_back((reader.is_too_long() ? "(too long)" : "") + std::string(reader.message()));
        reader.next();
      }
    }
  }
  if (!reader.is_between_messages()) {
    messages.emplace_back("(more)");
  }
  return messages;
}

TEST(netconf_reader, takes_a_conversation_apart_wherever_it_is_cut)
{
  const std::string longer(LIMIT + 1, 'x');
  const struct {
    netconf_framing framing;
    std::string stream;
    messages_t messages;
  } conversations[] = {
      {netconf_framing::end_of_message,
       "<a/>]]>]]>\r\n <b>]]]>]] ]]>]]]>]]</b>]]]>]]>]]>]]>" + longer + "]]>]]>\n",
       {"<a/>", "<b>]]]>]] ]]>]]]>]]</b>]", "", "(too long)" + longer}},
      {netconf_framing::end_of_message, "<a/>]]>]]>]]>", {"<a/>", "(more)"}},
      {netconf_framing::chunked,
       "\n#4\n<a/>\n##\n\n#1\n\n\n#10\n\n##\n#1\n]]>\n##\n\n#101\n" + longer + "\n##\n\n",
       {"<a/>", "\n\n##\n#1\n]]>", "(too long)" + longer}},
      {netconf_framing::chunked, "\n#4\n<a/>\n#", {"(more)"}},
  };
  for (const auto &[framing, stream, messages] : conversations) {
    for (size_t first = 0; first <= stream.size(); first++) {
      for (size_t second = first; second <= std::min(first + 12, stream.size()); second++) {
        ASSERT_EQ(read_all(framing, stream, {first, second}), messages) << "cut at " << first << " and " << second;
      }
    }
  }
}

TEST(netconf_reader, refuses_chunk_heads_that_are_none)
{
  for (const char *stream : {"#4\n<a/>", "\n4\n", "\n#0\n", "\n#04\n", "\n#-1\n", "\n#+1\n", "\n# 1\n", "\n#1 \n",
                             "\n#\n", "\n##\n", "\n#x\n", "\n#1\r\n", "\n#4294967296\n", "\n#99999999999999999999999\n",
                             "\n\n#4\n", "\n#4\n<a/>#4\n", "\n#4\n<a/>\n##\r", "\n#4\n<a/>\n##\nx"}) {
    EXPECT_EQ(read_all(netconf_framing::chunked, stream), std::nullopt) << testing::PrintToString(stream);
  }
  EXPECT_EQ(read_all(netconf_framing::chunked, "\n#4294967295\nx"), messages_t{"(more)"});
}

TEST(netconf_writer, chunks_end_with_whole_characters)
{
  const std::string text = "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x8C\x8D"; // of two, three and four bytes
  for (size_t cut = 0; cut <= text.size(); cut++) {
    wiped_string out;
    netconf_writer writer;
    writer.set_framing(netconf_framing::chunked);
    writer.write(std::string_view(text).substr(0, cut), &out);
    writer.write(std::string_view(text).substr(cut), &out);
    writer.end(&out);
    EXPECT_EQ(read_all(netconf_framing::chunked, std::string(out)), messages_t{text});
    const size_t whole = cut < 2 ? 0 : cut < 5 ? 2 : cut < 9 ? 5 : 9; // bytes of the first chunk, when there are two
    const std::string first = "\n#" + std::to_string(whole == 0 ? text.size() : whole) + "\n";
    EXPECT_TRUE(out.starts_with(first.c_str())) << cut << ": " << out;
  }
}

// The messages that a reader finds in what the writer makes of random ones are these, wherever both are cut; random
// bytes neither crash the reader nor make it depend on how they are cut.
TEST(netconf_framing, random_messages_arrive_as_they_were_sent)
{
  const auto seed = support::number_from("YMGR_SEED", 1);
  const auto rounds = support::number_from("YMGR_ROUNDS", 2000);
  for (auto round = seed; round < seed + rounds; round++) {
    SCOPED_TRACE("YMGR_SEED=" + std::to_string(round) + " YMGR_ROUNDS=1");
    std::mt19937 random(static_cast<unsigned>(round));
    auto below = [&random](size_t end) { return random() % end; };
    auto text = [&](size_t longest, std::string_view alphabet) {
      std::string bytes;
      for (size_t left = below(longest); left > 0; left--) {
        bytes += alphabet[below(alphabet.size())];
      }
      return bytes;
    };
    auto cuts = [&](size_t size) {
      std::vector<size_t> positions(below(8));
      std::generate(positions.begin(), positions.end(), [&] { return below(size + 1); });
      std::sort(positions.begin(), positions.end());
      return positions;
    };
    for (netconf_framing framing : {netconf_framing::end_of_message, netconf_framing::chunked}) {
      const std::string message = "<" + text(40, "]]]>>#\n1a") + "/>";
      wiped_string out;
      netconf_writer writer;
      writer.set_framing(framing);
      size_t begin = 0;
      for (size_t cut : cuts(message.size())) {
        writer.write(std::string_view(message).substr(begin, cut - begin), &out);
        begin = cut;
      }
      writer.write(std::string_view(message).substr(begin), &out);
      writer.end(&out);
      std::string expected = message;
      for (size_t at = 0;
           framing == netconf_framing::end_of_message && (at = expected.find("]]>]]>", at)) != std::string::npos;) {
        expected.replace(at + 5, 1, "&gt;");
      }
      ASSERT_EQ(read_all(framing, std::string(out), cuts(out.size())), messages_t{expected});

      const std::string noise = (below(2) == 0 ? "\n#" : "") + text(60, "\n\n##]>013 a");
      ASSERT_EQ(read_all(framing, noise, cuts(noise.size())), read_all(framing, noise));
    }
  }
}

} // namespace
