#pragma once

#include <string_view>

namespace qs_ns {

/// Does a sentence end with `token`, which a blank or the end of the text follows, and then
/// `behind`? So it does at a full stop, a question or an exclamation mark, quotes and brackets
/// aside; but not at the full stop of an abbreviation or an initial, which sound without a pause.
/// Where one of those ends a sentence, that goes unnoticed. Any thread.
bool endsSentence(std::string_view token, std::string_view behind);

/// Does a clause end with it: is a comma, a semicolon or a colon the last of it?
bool endsClause(std::string_view token);

}  // namespace qs_ns
