#pragma once

#include <cstdint>

#include <flite/flite.h>

namespace qs_ns {

/// Shortens the pauses where the pieces of a text are joined. Flite ends a piece with some 100 ms
/// of near silence and begins the next with up to 250; joined they would make 300 to 450, where a
/// sentence in the middle of an utterance has 100 to 170. Of the near silence that a later piece
/// begins with, as much is left out as makes the pause 150 ms; but its last 30 ms are always kept,
/// so that nothing is lost of a consonant that begins below the noise. A pause that is shorter than
/// 100 ms is made that long.
///
/// Quiet is a frame of 5 ms with less than four times the RMS of the noise in which its piece
/// begins: that is 10 to 30 of 32,767, and f, h, s and th, far below 1 % of full scale as they
/// begin, rise above it in 10 to 40 ms.
///
/// One object for each text, on the thread that synthesises it.
class JoinPause {
 public:
  /// What a chunk adds to the joined wave: zeros, then samples of the piece.
  struct Samples {
    int silence;
    int start;
    int count;
  };

  /// Of the piece's wave so far, whose newest samples are [start, start + size). Nothing as long as
  /// a later piece is quiet, then all from the place where it is to begin.
  Samples cut(const cst_wave& piece, int start, int size);

  /// The piece is whole; what is cut from now on belongs to a later one.
  void endPiece(const cst_wave& piece);

 private:
  int onset(const cst_wave& piece, int count);

  bool passes = true;         // all of this piece from here on
  int scanned = 0;            // samples of this piece in which there was no sound
  std::int64_t loudness = 0;  // sum of squares of a frame that is no longer quiet; 0: not known
  int quiet = 0;              // samples at the end of what was joined
};

}  // namespace qs_ns
