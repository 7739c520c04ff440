// Looks for secrets where they must not be: in a process's memory, in files. Parts of them count too.
#pragma once

#include <cctype>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

class secret_scan {
public:
  static std::string in_xml(const std::string &text)
  {
    std::string escaped;
    for (char c : text) {
      escaped += c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : std::string(1, c);
    }
    return escaped;
  }

  // Seven characters or more, no quotes. Its pieces side by side are looked for: whatever holds twice a piece's length
  // holds one of them whole.
  void add(const std::string &secret)
  {
    constexpr size_t PIECE = 10;
    for (size_t at = 0; at == 0 || at + PIECE <= secret.size(); at += PIECE) {
      std::string piece = secret.substr(at, PIECE);
      for (const std::string &form : std::set<std::string>{piece, in_xml(piece)}) {
        pieces_.emplace(first_word(form.data()), form);
      }
    }
  }

  // Adds where pieces were found to `places`, with the bytes around.
  void look(const std::string &name, std::string_view bytes, std::vector<std::string> *places) const
  {
    constexpr size_t AROUND = 60;
    for (size_t at = 0; at + sizeof(uint32_t) <= bytes.size(); at++) {
      uint32_t word = first_word(bytes.data() + at);
      auto [begin, end] = word == 0 ? std::pair(pieces_.end(), pieces_.end()) : pieces_.equal_range(word);
      for (auto it = begin; it != end; ++it) {
        if (bytes.substr(at).starts_with(it->second)) {
          std::string context(bytes.substr(at < AROUND ? 0 : at - AROUND, 2 * AROUND));
          for (char &c : context) {
            c = std::isprint(static_cast<unsigned char>(c)) != 0 ? c : '.';
          }
          places->push_back(name + ", at " + std::to_string(at) + ": " + it->second + " in " + context);
        }
      }
    }
  }

  // All that the process can read.
  void look(pid_t pid, std::vector<std::string> *places) const
  {
    std::string directory = "/proc/" + std::to_string(pid);
    std::ifstream maps(directory + "/maps");
    int memory = open((directory + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    size_t total = 0;
    for (std::string line; std::getline(maps, line);) {
      size_t begin = 0;
      size_t end = 0;
      if (std::sscanf(line.c_str(), "%zx-%zx r", &begin, &end) == 2 && line.find(" r") != std::string::npos) {
        std::string bytes(end - begin, '\0');
        ssize_t length = pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(begin));
        bytes.resize(length > 0 ? static_cast<size_t>(length) : 0); // the kernel's own pages cannot be read
        total += bytes.size();
        look(line, bytes, places);
      }
    }
    close(memory);
    if (total == 0) {
      places->push_back("nothing could be read of " + directory);
    }
  }

private:
  static uint32_t first_word(const char *bytes)
  {
    uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
  }

  std::unordered_multimap<uint32_t, std::string> pieces_; // by their first bytes
};
