// Where a secret stands in the memory of a process, whole or in pieces, as it is or written in another form: UTF-16,
// hexadecimal digits, base64. A piece counts, because what overwrites freed memory often overwrites only its beginning.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace lab {

class MemorySearch {
 public:
  struct Finding {
    std::string form;
    std::uint64_t address;
    std::string mapping;  // as the kernel names it: "[heap]", "[stack]", a file, or nothing
  };
  struct Result {
    std::uint64_t searched = 0;  // bytes
    std::vector<Finding> findings;
  };

  // Of a secret shorter than a piece nothing is looked for.
  explicit MemorySearch(std::string_view secret) {
    const std::string plain(secret);
    const std::string little = wide(plain, 0), big = wide(plain, 1);
    add("as it is", plain, kPiece);
    add("UTF-16LE", little, 2 * kPiece);
    add("UTF-16BE", big, 2 * kPiece);
    for (const auto &[name, bytes] : {std::pair("as it is", plain), {"UTF-16LE", little}, {"UTF-16BE", big}}) {
      const std::size_t scale = bytes.size() > plain.size() ? 2 : 1;
      for (const char *digits : {"0123456789abcdef", "0123456789ABCDEF"})
        add(std::string(name) + " in hex", hex(bytes, digits), 2 * scale * kPiece);
      for (std::size_t offset = 0; offset < 3; ++offset)
        add(std::string(name) + " in base64", base64(bytes, offset), 12 * scale);
    }
  }

  // Every readable mapping of PROCESS, in its own numbers (/proc). Pages that cannot be read are passed over.
  [[nodiscard]] Result in(pid_t process) const {
    const std::string folder = "/proc/" + std::to_string(process) + "/";
    std::ifstream maps(folder + "maps"), memory(folder + "mem", std::ios::binary);
    Result result;
    for (std::string line; std::getline(maps, line);) {
      std::istringstream words(line);
      std::string range, mode, offset, device, inode, name;
      words >> range >> mode >> offset >> device >> inode >> std::ws;
      std::getline(words, name);
      if (mode.substr(0, 1) != "r") continue;
      const std::uint64_t start = std::stoull(range, nullptr, 16);
      const std::uint64_t end = std::stoull(range.substr(range.find('-') + 1), nullptr, 16);
      // A sanitizer's shadow takes terabytes, and holds no bytes of anybody's.
      if (end - start <= kLargest) search(memory, start, end, name, result);
    }
    return result;
  }

 private:
  static constexpr std::size_t kPiece = 8;             // bytes of the secret
  static constexpr std::size_t kBlock = 1 << 20;       // read at once
  static constexpr std::uint64_t kLargest = 1U << 28;  // mapping

  struct Piece {
    std::string form, bytes;
  };

  // Each byte as a character: right for ASCII, and of other texts the runs of ASCII are found.
  static std::string wide(const std::string &bytes, std::size_t place) {
    std::string text(2 * bytes.size(), '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) text[2 * i + place] = bytes[i];
    return text;
  }

  static std::string hex(const std::string &bytes, const char *digits) {
    std::string text;
    for (const char byte : bytes) {
      text += digits[static_cast<unsigned char>(byte) >> 4];
      text += digits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
  }

  // The characters that do not depend on the neighbours, when OFFSET bytes of something else stand before BYTES.
  static std::string base64(const std::string &bytes, std::size_t offset) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = (3 - offset) % 3; i + 3 <= bytes.size(); i += 3) {
      std::uint32_t bits = 0;
      for (std::size_t j = 0; j < 3; ++j) bits = bits << 8 | static_cast<unsigned char>(bytes[i + j]);
      for (const int shift : {18, 12, 6, 0}) text += kDigits[bits >> shift & 63];
    }
    return text;
  }

  void add(const std::string &form, const std::string &bytes, std::size_t size) {
    for (std::size_t at = 0; at + size <= bytes.size(); ++at) {
      const std::uint64_t head = headOf(bytes.data() + at);
      pieces_[head].push_back({form, bytes.substr(at, size)});
      beginnings_[static_cast<unsigned char>(bytes[at]) << 8 | static_cast<unsigned char>(bytes[at + 1])] = 1;
      longest_ = std::max(longest_, size);
    }
  }

  static std::uint64_t headOf(const char *bytes) {
    std::uint64_t head = 0;
    std::memcpy(&head, bytes, sizeof head);
    return head;
  }

  // A piece may stand across two blocks: each block begins with the end of the one before.
  void search(std::ifstream &memory, std::uint64_t start, std::uint64_t end, const std::string &mapping,
              Result &result) const {
    std::string block;
    std::map<std::string, std::uint64_t> last;
    for (std::uint64_t at = start; at < end; at += kBlock) {
      const std::size_t kept = std::min(block.size(), longest_);
      block.erase(0, block.size() - kept);
      const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, end - at));
      block.resize(kept + wanted);
      memory.clear();
      memory.seekg(static_cast<std::streamoff>(at));
      memory.read(block.data() + kept, static_cast<std::streamsize>(wanted));
      const auto count = static_cast<std::size_t>(std::max<std::streamsize>(0, memory.gcount()));
      block.resize(kept + count);
      result.searched += count;
      look(block, kept, at - kept, mapping, last, result);
      if (count < wanted) block.clear();
    }
  }

  // What ends within the first KEPT bytes has been seen before. Neighbouring pieces of one form are one finding; LAST
  // is where the last piece of each form stood.
  void look(const std::string &block, std::size_t kept, std::uint64_t address, const std::string &mapping,
            std::map<std::string, std::uint64_t> &last, Result &result) const {
    const auto *const bytes = reinterpret_cast<const unsigned char *>(block.data());
    const unsigned char *const beginnings = beginnings_.data();
    for (std::size_t i = 0; i + sizeof(std::uint64_t) <= block.size(); ++i) {
      if (beginnings[bytes[i] << 8 | bytes[i + 1]] == 0) continue;
      const std::uint64_t head = headOf(block.data() + i);
      const auto known = pieces_.find(head);
      if (known == pieces_.end()) continue;
      for (const Piece &piece : known->second) {
        if (i + piece.bytes.size() <= kept || block.compare(i, piece.bytes.size(), piece.bytes) != 0) continue;
        const auto [before, isFirst] = last.try_emplace(piece.form, 0);
        if (isFirst || address + i > before->second + 1) result.findings.push_back({piece.form, address + i, mapping});
        before->second = address + i;
      }
    }
  }

  std::unordered_map<std::uint64_t, std::vector<Piece>> pieces_;                 // by their first eight bytes
  std::vector<unsigned char> beginnings_ = std::vector<unsigned char>(1 << 16);  // 1: some begin with these two
  std::size_t longest_ = 0;
};

}  // namespace lab
