#pragma once

// The text helpers' steps, one after the other and as plainly as they can be written: what the
// tests and the fuzz targets compare with.

#include <exception>
#include <sstream>
#include <string>
#include <vector>

namespace oracle {

inline std::string trimmedBySteps(std::string text) {
  while (!text.empty() && text.front() == ' ') text.erase(0, 1);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

inline std::string singleBlanksBySteps(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i > 0 && text[i] == ' ' && text[i - 1] == ' ') continue;
    result += text[i];
  }
  return result;
}

/// The index after the closing quote.
inline std::size_t quotedBySteps(std::vector<std::string>& out, const std::string& text,
                                 std::size_t pos) {
  for (std::size_t i = pos + 1; i < text.size(); ++i) {
    if (text[i] == text[pos] && text[i - 1] != '\\') {
      out.push_back(text.substr(pos, i + 1 - pos));
      return i + 1;
    }
  }
  throw std::exception();
}

inline std::string canonicalBySteps(const std::string& text) {
  std::vector<std::string> code;
  std::vector<std::string> kept;
  std::size_t pieceStart = 0;
  std::size_t pos = 0;
  for (;;) {
    const std::size_t i = text.find_first_of("/\"'", pos);
    if (i == std::string::npos) break;
    if (text[i] != '/') {
      code.push_back(text.substr(pieceStart, i - pieceStart));
      pos = pieceStart = quotedBySteps(kept, text, i);
    } else if (i + 1 < text.size() && text[i + 1] == '*') {
      const std::size_t end = text.find("*/", i + 1);
      if (end == std::string::npos) throw std::exception();
      code.push_back(text.substr(pieceStart, i - pieceStart));
      kept.emplace_back();
      pos = pieceStart = end + 2;
    } else {
      pos = i + 1;
    }
  }
  code.push_back(text.substr(pieceStart));

  std::string joined;
  for (std::size_t i = 0; i < kept.size(); ++i) joined += code[i] + kept[i];
  joined += code.back();
  for (char& c : joined) {
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7f) c = ' ';
  }
  return trimmedBySteps(singleBlanksBySteps(joined));
}

/// The pieces that reading lines with this delimiter gives.
inline std::vector<std::string> piecesBySteps(const std::string& text, char delim) {
  std::vector<std::string> pieces;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, delim);) pieces.push_back(piece);
  return pieces;
}

inline std::vector<std::string> itemsBySteps(const std::string& text) {
  std::vector<std::string> items;
  if (text.empty()) return items;
  std::string item;
  for (const char c : text) {
    if (c == 0x22) continue;
    if (c == 0x2C) {
      items.push_back(item);
      item.clear();
    } else {
      item.push_back(c);
    }
  }
  items.push_back(item);
  return items;
}

/// The table of escapes, byte by byte.
inline std::string escapedBySteps(const std::string& text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case 0x0A:
        result += "\\n";
        break;
      case 0x09:
        result += "\\t";
        break;
      case 0x22:
        result += "\\\"";
        break;
      case 0x5C:
        result += "\\\\";
        break;
      default:
        result += c;
    }
  }
  return result;
}

/// Only double quotes are escaped.
inline std::string quotesEscapedBySteps(const std::string& text) {
  std::ostringstream result;
  std::size_t start = 0;
  for (std::size_t quote; (quote = text.find('"', start)) != std::string::npos;) {
    result << text.substr(start, quote - start) << "\\\"";
    start = quote + 1;
  }
  result << text.substr(start);
  return result.str();
}

}  // namespace oracle
