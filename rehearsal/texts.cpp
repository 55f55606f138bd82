#include "texts.h"

#include "text.h"

namespace rehearsal {

std::string Substitute(std::string_view text, std::initializer_list<std::string> arguments) {
    std::string filled;
    for (std::size_t at = 0; at < text.size(); at++) {
        const bool mark = text[at] == '&' && at + 1 < text.size();
        const auto which = mark ? static_cast<std::size_t>(text[at + 1] - '1') : arguments.size();
        if (which < arguments.size()) {
            filled += arguments.begin()[which];
            at++;
        } else {
            filled += text[at];
        }
    }
    return filled;
}

bool IsListed(std::string_view word, std::string_view words) {
    for (std::string_view each = ConsumeField(words); !each.empty(); each = ConsumeField(words))
        if (each == word)
            return true;
    return false;
}

} // namespace rehearsal
