#pragma once

// Text, path and file helpers of the query tooling.
//
//   using Korvo::KoStrUtils;
//   std::string query = KoStrUtils::canonicalize("select a /* note */\n from t into T named q1;");
//   // "select a from t into T named q1;"
//   KoStrUtils::extractOutputType(query);  // "T"
//   KoStrUtils::extractQueryName(query);   // "q1"
//
// Two tools that disagree on one byte of a canonical query are talking about two queries, so every
// oddity below is part of the contract. Nothing here keeps state: all functions may be called from
// any thread, removeTree and copyFile as long as no two calls work on the same files. Results own
// their bytes; a function that fills a vector appends to it and never clears it. Any of them may
// throw std::bad_alloc, with what it was given as before, except removeTree and copyFile.

#include <Korvo/export.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Korvo {

/// Helpers on query text, paths and numbers.
class KORVO_API KoStrUtils {
 public:
  KoStrUtils() = delete;

  // Query text. The extract functions work on words parted by single blanks, so canonicalize
  // first. Keywords count in any letter case.

  /// Brings query text into its one form: comments removed without leaving a blank, control bytes
  /// and bytes from 0x80 replaced by blanks, runs of blanks reduced to one and blanks at the ends
  /// dropped. Quoted text only keeps its comment markers; its blanks are reduced as well. A comment
  /// may share the asterisk of its two markers. Throws std::exception for a quote or comment that
  /// does not end.
  static std::string canonicalize(const std::string& text);

  /// The name at the end of "... named name;", cut before its last semicolon; empty if the word
  /// before the last one is not "named".
  static std::string extractQueryName(const std::string& text);

  /// The type in "... into Type;" (cut before its last semicolon) or "... into Type named name;"
  /// (as it is). Stops the process if the text has neither form.
  static std::string extractOutputType(const std::string& text);

  /// Appends to `out` the quoted text that starts at `text[pos]`, quotes included, and returns the
  /// index after it. It ends at the next byte equal to `text[pos]` that has no backslash right
  /// before it, whether or not that backslash is itself escaped. What stands before `pos` plays no
  /// part. Throws std::exception, with `out` as before, if there is no such byte or `pos` lies
  /// outside the text.
  static unsigned int extractEnquotedString(std::vector<std::string>& out, const std::string& text,
                                            unsigned int pos);

  /// Reduces every run of blanks (0x20) to one.
  static std::string replaceMultiBlanks(const std::string& text);

  /// Drops the blanks (0x20 only) at both ends.
  static std::string trim(const std::string& text);

  /// Puts a backslash before every double quote and changes nothing else, so that, unlike with
  /// Korvo::escapeString, deescapeString does not always give the text back.
  static std::string escapeString(const std::string& text);

  /// Replaces every control byte below 0x20, and every byte from 0x80, by a blank.
  static std::string replaceCtrl(const std::string& text);

  /// Appends the pieces of the text, empty ones too, and returns `out`. A delimiter at the very end
  /// makes no empty last piece, and an empty text no piece at all. Takes memory for the pieces
  /// only.
  static std::vector<std::string>& split(const std::string& text, char delim,
                                         std::vector<std::string>& out);

  // Paths.

  /// What follows the last '/', up to its last '.'.
  static std::string baseName(std::string& path);
  /// Appends a '/' unless the path ends with one; an empty path becomes "/".
  static void addTrailingSlash(std::string& path);

  // These two take time in proportion to the texts, whatever they are.

  /// What stands before the last occurrence of `tail`; the whole text if there is none.
  static std::string dropTail(const std::string& text, const std::string& tail);
  /// What follows the last occurrence of `tail`; the whole text if there is none.
  static std::string keepTail(const std::string& text, const std::string& tail);

  // Conversions and digest.

  /// Decimal digits to a number, modulo 2^64. Checks nothing, on purpose: any other character
  /// counts as its (signed) code minus that of '0'.
  static std::uint64_t stoUint64_t(const std::string& text);

  /// The number at the start of the text, as strtod reads it in the present C locale. Throws
  /// std::invalid_argument if there is none, std::out_of_range if it is out of range (too small
  /// included), both with the text "stod". Leaves errno alone.
  static double stoDouble(const std::string& text);

  /// Whether the texts are equal after tolower, in the present C locale, of every byte.
  static bool iequals(const std::string& a, const std::string& b);

  /// The SHA-1 digest as 40 lower-case hexadecimal digits. Throws std::runtime_error if the
  /// cryptographic library does not compute it, be it for want of memory. That library may stop the
  /// process when memory runs out during its own first use.
  static std::string sha1(const std::string& data);
};

/// Puts a backslash before double quotes and backslashes, and writes line feeds and tabs as \n and
/// \t. All other bytes stay as they are.
KORVO_API std::string escapeString(const std::string& text);

/// The inverse of Korvo::escapeString. Stops the process at an escape that escapeString does not
/// write and at a backslash at the end.
KORVO_API std::string deescapeString(const std::string& text);

/// Appends the pieces of the text that are not empty and returns the size that `out` then has.
/// Takes memory for these pieces only.
KORVO_API int splitString(const std::string& text, char delim, std::vector<std::string>& out);

/// Cuts the text of an array value at its commas. Double quotes are dropped wherever they stand and
/// do not protect commas, on purpose. An empty text has no item; all others have one more than
/// commas.
KORVO_API std::vector<std::string> processArrayString(const std::string& text);

/// Removes a directory and everything below it, depth first; 0 when all is gone, -1 at the first
/// failure, with errno telling why and what was removed by then staying removed. Symbolic links in
/// the tree are removed and never followed, also when one takes a directory's place meanwhile. A
/// path that is itself a link to a directory empties that directory and then fails. Refuses the
/// root directory under any name. On a file system whose directories do not tell their entries'
/// types, subdirectories count as files and fail.
KORVO_API int removeTree(std::string path);

/// Copies a file's bytes; 0 on success, -1 on failure, with the destination left as far as it got:
/// it is created or emptied even if the source cannot be opened. An empty source is a failure. So
/// is copying a file onto itself, under any name, which leaves it whole. Every error of a read or a
/// write is a failure; what the system tells only at closing is not looked at.
KORVO_API int copyFile(const std::string& from, const std::string& to);

// Here because a call costs as much as the work on a short text.

inline std::uint64_t KoStrUtils::stoUint64_t(const std::string& text) {
  // A negative difference wraps round, and so do the sums.
  const auto digit = [](char c) {
    return static_cast<std::uint64_t>(static_cast<signed char>(c) - '0');
  };
  std::uint64_t value = 0;
  const char* in = text.data();
  const char* const end = in + text.size();
  // Four at once, since each step waits for the multiplication of the one before.
  for (; end - in >= 4; in += 4) {
    value = value * 10000 + (digit(in[0]) * 1000 + digit(in[1]) * 100) +
            (digit(in[2]) * 10 + digit(in[3]));
  }
  for (; in != end; ++in) value = value * 10 + digit(*in);
  return value;
}

}  // namespace Korvo
