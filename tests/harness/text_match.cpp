// Regular expressions, compiled for all tests in this one place: <regex> takes seconds in each source that
// uses it.
#include <regex>

#include "wex_test.h"

namespace wex_test {

namespace {

std::vector<std::string> texts_of(const std::smatch& match) {
  return {match.begin(), match.end()};
}

}  // namespace

bool matches(const std::string& text, const std::string& expression) {
  return std::regex_match(text, std::regex(expression));
}

bool contains_match(const std::string& text, const std::string& expression) {
  return std::regex_search(text, std::regex(expression));
}

std::vector<std::string> groups_of(const std::string& text, const std::string& expression) {
  std::smatch match;
  return std::regex_search(text, match, std::regex(expression)) ? texts_of(match)
                                                                : std::vector<std::string>();
}

std::vector<std::string> all_matches(const std::string& text, const std::string& expression, size_t group) {
  const std::regex compiled(expression);
  std::vector<std::string> found;
  for (std::sregex_iterator at(text.begin(), text.end(), compiled), end; at != end; ++at) {
    found.push_back(at->str(group));
  }
  return found;
}

std::string replace_matches(const std::string& text, const std::string& expression,
                            const std::string& replacement) {
  return std::regex_replace(text, std::regex(expression), replacement);
}

}  // namespace wex_test
