#pragma once
#include <string>
#include <string_view>

/// Operations on the text of a path, without looking at the disk. Any thread.

/// "/a/b" and "/a/b/" give "b", "/" gives "/", "" gives "".
std::string lastPathComponent(std::string_view path);
/// "/a/b" and "/a/b/" give "/a", "/a" gives "/", "/" gives "/", "a" gives "".
std::string deletingLastPathComponent(std::string_view path);
/// Joins with exactly one slash and collapses runs of slashes: "/" + "a" is "/a", "" + "a" is "a".
std::string appendingPathComponent(std::string_view path, std::string_view component);
