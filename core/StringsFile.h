#pragma once
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// What a strings file says: key to text.
using StringsTable = std::map<std::string, std::string, std::less<>>;

/// Reads the text of a strings file: entries `"key" = "value";` with the escapes \" \\ \n \t \r and \Uxxxx (a
/// UTF-16 unit; pairs are joined), and comments /* … */ and // …. Of equal keys the last counts. An entry
/// that is malformed is left out, with its line number in `problems` (may be null); reading goes on after its
/// next semicolon. Any thread.
StringsTable parseStringsFile(std::string_view text, std::vector<std::size_t>* problems = nullptr);

/// The languages to look for, best first, from the values of LC_ALL, LC_MESSAGES and LANG (null or empty: not
/// set). "de_AT.UTF-8" gives "de_AT", "de"; "C" and "POSIX" stand for no wish. English always comes last.
std::vector<std::string> languagesFromEnvironment(const char* lcAll, const char* lcMessages,
                                                  const char* lang);
