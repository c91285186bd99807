#pragma once

#include "latency_report.h"
#include "latency_stand.h"

namespace bench {

// Each adds its rows to the report; `repetitions` is the number of values, where no comment says
// less. All throw where something fails that is no matter of time.

/// Call to audible: cached phrases, a word, ten words, a hundred words.
void measureCalls(Stand& stand, Report& report, int repetitions);
/// The same beside a conversion and a busy client.
void measureCallsUnderLoad(Stand& stand, Report& report, int repetitions);
/// The same, each right after a reload.
void measureCallsAfterReload(Stand& stand, Report& report, int repetitions);

/// A stop in mid-speech to silence.
void measureStop(Stand& stand, Report& report, int repetitions);
/// A displacing call to the new text.
void measureInterruption(Stand& stand, Report& report, int repetitions);
/// A dozen displacing calls, as a key held down makes them.
void measureHeldKey(Stand& stand, Report& report, int repetitions);

/// Start of the process to its name and to the first word.
void measureStart(Stand& stand, Report& report, int repetitions);
/// Processor time for a second of speech; ten texts at most.
void measureProcessorTime(Stand& stand, Report& report, int repetitions);
/// Memory, wake-ups and streams once all is quiet; one run of ten seconds.
void measureIdle(Stand& stand, Report& report, int repetitions);

}  // namespace bench
