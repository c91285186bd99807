#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace qs_ns {

/// The most that one utterance may weigh. Memory and the wait for the first sound grow with the
/// utterance (49 KB for each character, 6 ms for each second of sound), so a heavier text is spoken
/// in pieces.
inline constexpr std::size_t kMaxPieceWeight = 200;

/// A sentence heavier than this lets nobody wait for its end: 26 ms for the first sound where a
/// heavier one takes up to 50.
inline constexpr std::size_t kLongSentenceWeight = 100;

/// How much sound a text makes, in letters' worth: 1 for a letter, a blank or punctuation about
/// which the voice is silent; 6 for a digit or any other character, also for what is not UTF-8 and
/// becomes U+FFFD; 4 for each letter of a token (what blanks enclose) without a vowel, y included,
/// since the voice spells it. At stretch 1.0 a weight of 200 is 11 s of prose, at most 18 s of
/// digits, symbols or spelled letters, 35 s where a comma follows every short word, and 70 s at
/// worst (199 w and an a). Never less than the text's bytes, which settles it for one of megabytes.
/// Linear in the text's length; any thread.
std::size_t textWeight(std::string_view text);

/// Cuts `text` into pieces of at most `maxWeight` (6 or more), in order: at sentence ends
/// (`endsSentence`), else at clauses, else at words, and inside a token only where it is heavier
/// than a piece by itself. Never inside a UTF-8 character. A text within `maxWeight` is one piece,
/// unchanged; else the blanks at its ends and at the cuts belong to no piece, and nothing else is
/// left out. No piece is empty but that of an empty text. The views are into `text`. Linear in the
/// text's length; any thread.
std::vector<std::string_view> cutIntoPieces(std::string_view text,
                                            std::size_t maxWeight = kMaxPieceWeight);

/// Cuts `text` as speech wants it, for which somebody waits: first its first sentence, or, where
/// that is heavier than `kLongSentenceWeight`, as many of its clauses as are not; then sentence by
/// sentence, as many at a time as are not heavier either. A sentence heavier than `maxWeight` is
/// cut as above. A text of one sentence is one piece, unchanged; else blanks are left out as above,
/// and so are pieces of nothing but marks, which would only add a pause. Linear in the text's
/// length; any thread.
std::vector<std::string_view> cutForSpeech(std::string_view text,
                                           std::size_t maxWeight = kMaxPieceWeight);

}  // namespace qs_ns
