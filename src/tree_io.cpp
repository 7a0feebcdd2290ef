#include "velmot/io/tree_io.h"

#include <cctype>

namespace Velmot {

namespace {

bool is_space(int c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

std::vector<std::string> read_tree_tokens(std::istream& in) {
  std::vector<std::string> tokens;
  int depth = 0;
  in >> std::ws;
  while (in.good()) {
    in >> std::ws;
    const int next = in.peek();
    if (next == '(' || next == ')') {
      in.get();
      tokens.emplace_back(1, static_cast<char>(next));
      depth += next == '(' ? 1 : -1;
      if (depth < 0) throw Exception("too many )s");
      if (depth == 0) return tokens;
    } else {
      std::string word;
      while (true) {
        const int c = in.peek();
        if (!in.good() || is_space(c) || c == '(' || c == ')') break;
        word.push_back(static_cast<char>(in.get()));
      }
      tokens.push_back(word);
    }
    if (!in.good()) break;
    in >> std::ws;
  }
  // Thrown as a bare string on purpose: the module reports it as it stands.
  if (depth != 0) throw std::string("unbalanced parentheses");
  return tokens;
}

}  // namespace Velmot
