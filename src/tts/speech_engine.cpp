#include "tts/speech_engine.h"

#include <syslog.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/property_store.h"
#include "tts/join_pause.h"
#include "tts/text_guard.h"
#include "tts/utterance_pieces.h"
#include "tts/wave_file.h"

// The voice's library comes without a header.
extern "C" cst_voice* register_cmu_us_slt(const char* directory);

namespace qs_ns {

namespace {

constexpr int kDefaultLevel = 3;
constexpr int kFastVoiceLevel = 2;
constexpr int kMinChunkSamples = 320;
// Flite keeps the pointers to the names of features.
constexpr char kStretchFeature[] = "duration_stretch";
constexpr char kStreamFeature[] = "streaming_info";

// Written under `voiceMutex` or once, read without a lock. Registered voices are never released.
std::atomic<cst_voice*> slt{nullptr};
std::atomic<cst_voice*> kal16{nullptr};  // nothing registers one yet
std::atomic<cst_voice*> voice{nullptr};  // file synthesis's, and the default once it is set

bool isLevel(int level) {
  return level >= 1 && level <= 5;
}

float stretchOf(int level) {
  return static_cast<float>(0.75 - (level - 3) / 8.0);
}

cst_voice* configuredVoice() {
  char name[128] = {};
  if (getStringProperty("qs_voice", name, sizeof name) != 0) return slt;
  if (std::strcmp(name, "kal16") == 0 && kal16 != nullptr) return kal16;
  return slt;
}

cst_voice* fileVoice() {
  cst_voice* current = voice;
  if (current != nullptr) return current;
  cst_voice* chosen = qs_fetch_voice(0);
  // Where another thread was first, its choice stands.
  return voice.compare_exchange_strong(current, chosen) ? chosen : current;
}

/// A text on its way through Flite.
struct Job {
  cst_voice* voice;
  float stretch;
  StreamCallback callback;
  QS_StreamUserData* userData;
  bool wantWave;
  bool toFile;  // else it is streamed, and each call of Flite logged

  Urgency urgency() const {
    const bool background = toFile || (userData != nullptr && userData->background);
    return background ? Urgency::background : Urgency::speech;
  }
  bool endsBeforePiece() const {
    return userData != nullptr && userData->beforePiece != nullptr &&
           userData->beforePiece(*userData) != 0;
  }
  bool waitsBeforePiece() const {
    return userData != nullptr && userData->waitsBeforePiece != nullptr &&
           userData->waitsBeforePiece(*userData);
  }
  bool isAbandoned() const {
    return userData != nullptr && userData->abandoned != nullptr && userData->abandoned(*userData);
  }
};

/// What Flite makes of a text whose callback stopped it.
Wave emptyWave() {
  return Wave(new_wave());
}

/// Keeps background work away from the voice while a text is being spoken.
class SpeechClaim {
 public:
  explicit SpeechClaim(Urgency urgency) : speaks(urgency == Urgency::speech) { claim(); }
  ~SpeechClaim() { release(); }
  SpeechClaim(const SpeechClaim&) = delete;
  SpeechClaim& operator=(const SpeechClaim&) = delete;

  /// Asks whether the text ends here.
  bool endsBeforePiece(const Job& job) const {
    if (!job.waitsBeforePiece()) return job.endsBeforePiece();
    release();
    const bool ends = job.endsBeforePiece();
    claim();
    return ends;
  }

 private:
  void claim() const {
    if (speaks) voiceMutex.beginSpeech();
  }
  void release() const {
    if (speaks) voiceMutex.endSpeech();
  }

  const bool speaks;
};

/// Speaks one utterance within one hold of the voice.
Wave speakUtterance(const Job& job, const std::string& text, StreamCallback callback,
                    void* userData, bool wantWave) {
  if (!voiceMutex.take(job.urgency(), [&job] { return job.isAbandoned(); })) return emptyWave();
  const VoiceHold hold(voiceMutex);
  if (job.isAbandoned()) return emptyWave();
  cst_features* features = job.voice->features;
  feat_set_float(features, kStretchFeature, job.stretch);
  if (callback != nullptr) {
    cst_audio_streaming_info* info = new_audio_streaming_info();
    info->min_buffsize = kMinChunkSamples;
    info->asc = callback;
    info->userdata = userData;
    feat_set(features, kStreamFeature, audio_streaming_info_val(info));
  }
  if (!job.toFile)
    syslog(LOG_DEBUG, "%s: voice configuration done. Invoking flite api now\n",
           "qs_flite_tts_stream");
  Wave wave;
  if (wantWave)
    wave.reset(flite_text_to_wave(text.c_str(), job.voice));
  else
    flite_text_to_speech(text.c_str(), job.voice, "none");
  // The record goes with the feature.
  if (callback != nullptr) feat_remove(features, kStreamFeature);
  return wave;
}

/// Speaks the pieces of a text one after the other and makes one growing wave of them, which is all
/// that the caller's callback sees. The joins of what is streamed are shortened. A piece of a file
/// gives way to speech, leaves no trace and is made anew, but not more often than it must: where
/// speech never pauses for as long as a piece takes, it would never be done.
class PieceJoiner {
 public:
  explicit PieceJoiner(const Job& theJob) : job(theJob) { joined->num_channels = 1; }

  Wave speak(const std::vector<std::string_view>& pieces, const SpeechClaim& claim);

 private:
  static constexpr int kMostGivenUp = 8;

  Wave speakPiece(const std::string& piece);
  static int onChunk(const cst_wave* wave, int start, int size, int last,
                     cst_audio_streaming_info* info) {
    return static_cast<PieceJoiner*>(info->userdata)->take(*wave, start, size, last, *info);
  }

  int take(const cst_wave& wave, int start, int size, int last,
           const cst_audio_streaming_info& info);
  bool append(const short* samples, int count);

  const Job& job;
  Wave joined{new_wave()};
  int capacity = 0;
  JoinPause pause;
  bool atLastPiece = false;
  bool stopped = false;
  bool gaveWay = false;
  int givenUp = 0;  // how often this piece was
};

Wave PieceJoiner::speak(const std::vector<std::string_view>& pieces, const SpeechClaim& claim) {
  for (const std::string_view& piece : pieces) {
    if (claim.endsBeforePiece(job)) return emptyWave();
    atLastPiece = &piece == &pieces.back();
    const Wave part = speakPiece(std::string(piece));
    if (!part) return nullptr;
    if (stopped || part->num_samples == 0) return emptyWave();
    if (!job.toFile) pause.endPiece(*part);
  }
  return std::move(joined);
}

Wave PieceJoiner::speakPiece(const std::string& piece) {
  const int pieceStart = joined->num_samples;
  for (givenUp = 0;; ++givenUp) {
    Wave part = speakUtterance(job, piece, onChunk, this, true);
    if (!std::exchange(gaveWay, false)) return part;
    joined->num_samples = pieceStart;
  }
}

int PieceJoiner::take(const cst_wave& wave, int start, int size, int last,
                      const cst_audio_streaming_info& info) {
  // What comes last has no more to give.
  gaveWay = job.toFile && last == 0 && givenUp < kMostGivenUp && voiceMutex.isWantedBySpeech();
  if (gaveWay) return CST_AUDIO_STREAM_STOP;
  const int joinedStart = joined->num_samples;
  joined->sample_rate = wave.sample_rate;
  const JoinPause::Samples next = pause.cut(wave, start, size);
  if (!append(nullptr, next.silence) || !append(wave.samples + next.start, next.count))
    stopped = true;
  const int added = joined->num_samples - joinedStart;
  const bool ends = atLastPiece && last != 0;
  if (!stopped && job.callback != nullptr && (added > 0 || ends)) {
    cst_audio_streaming_info callersInfo = info;
    callersInfo.asc = job.callback;
    callersInfo.userdata = job.userData;
    const int answer =
        job.callback(joined.get(), joinedStart, added, ends ? last : 0, &callersInfo);
    // A stop that comes with the very last samples finds nothing left to stop, as in Flite.
    stopped = answer != CST_AUDIO_STREAM_CONT && !ends;
  }
  return stopped ? CST_AUDIO_STREAM_STOP : CST_AUDIO_STREAM_CONT;
}

/// Appends zeros where `samples` is null. False where Flite's int cannot count the bytes any more
/// (18 hours of speech).
bool PieceJoiner::append(const short* samples, int count) {
  constexpr int kMaxSamples = INT_MAX / static_cast<int>(sizeof(short));
  if (count > kMaxSamples - joined->num_samples) return false;
  const int needed = joined->num_samples + count;
  if (needed > capacity) {
    const int grown = capacity < kMaxSamples / 2 ? capacity + capacity / 2 : kMaxSamples;
    capacity = std::max(needed, grown);
    joined->samples = static_cast<short*>(
        cst_safe_realloc(joined->samples, capacity * static_cast<int>(sizeof(short))));
  }
  short* const end = joined->samples + joined->num_samples;
  if (samples != nullptr)
    std::copy_n(samples, count, end);
  else
    std::fill_n(end, count, short{0});
  joined->num_samples = needed;
  return true;
}

/// A text is light or heavy as it was received. The blanks that the guard puts into a long token
/// can add to its weight but not to its sound; and a long run that it cuts is gone before the
/// pieces are.
std::vector<std::string_view> piecesOf(const Job& job, std::string_view received,
                                       std::string_view safe) {
  const bool light = textWeight(received) <= kMaxPieceWeight;
  const std::size_t maxWeight =
      light ? std::max(kMaxPieceWeight, textWeight(safe)) : kMaxPieceWeight;
  return job.toFile ? cutIntoPieces(safe, maxWeight) : cutForSpeech(safe, maxWeight);
}

Wave speakText(const Job& job, const char* text) {
  const std::string safeText = guardText(text);
  const std::vector<std::string_view> pieces = piecesOf(job, text, safeText);
  const SpeechClaim claim(job.urgency());
  if (pieces.size() > 1 || job.toFile) return PieceJoiner(job).speak(pieces, claim);
  if (claim.endsBeforePiece(job)) return emptyWave();
  return speakUtterance(job, std::string(pieces[0]), job.callback, job.userData, job.wantWave);
}

/// How a conversion is stopped: the hook and the callback of a stream that nobody hears.
struct FileStop {
  const std::atomic<bool>* stop;

  bool wanted() const { return stop != nullptr && stop->load(); }

  static bool wantedBy(const QS_StreamUserData& userData) {
    return static_cast<const FileStop*>(userData.owner)->wanted();
  }
  static int onChunk(const cst_wave*, int, int, int, cst_audio_streaming_info* info) {
    const bool stops = wantedBy(*static_cast<const QS_StreamUserData*>(info->userdata));
    return stops ? CST_AUDIO_STREAM_STOP : CST_AUDIO_STREAM_CONT;
  }
};

}  // namespace

void qs_flite_init() {
  voiceMutex.lock();
  const VoiceHold hold(voiceMutex);
  flite_init();
  cst_voice* registered = register_cmu_us_slt(nullptr);
  slt = registered;
  if (registered == nullptr) {
    syslog(LOG_ERR, "%s: Error in voice register call", "qs_register_voice");
    return;
  }
  if (flite_voice_add_lex_addenda(registered, "/etc/addenda.lex") != 0)
    syslog(LOG_ERR, "%s: Error while loading LEX addenda file", "qs_register_voice");
}

cst_voice* qs_fetch_voice(int requestedVoice) {
  syslog(LOG_NOTICE, "%s: req_voice: %d", "qs_fetch_voice", requestedVoice);
  cst_voice* const current = voice;
  if (requestedVoice == 0 && current != nullptr) return current;
  if (requestedVoice == 1) {
    cst_voice* const fast = kal16;
    if (fast != nullptr) {
      syslog(LOG_NOTICE, "%s: selecting voice KAL16", "qs_fetch_voice");
      return fast;
    }
    syslog(LOG_ERR, "%s: FAST VOICE KAL16 is disabled", "qs_fetch_voice");
  }
  return configuredVoice();
}

int qs_fetch_speed(const QS_StreamUserData* userData) {
  if (userData != nullptr) {
    syslog(LOG_NOTICE, "%s: Requested speed: %d", "qs_fetch_speed", userData->speed);
    if (userData->speed != 0) return isLevel(userData->speed) ? userData->speed : kDefaultLevel;
    if (userData->voice == 1) return kFastVoiceLevel;
  }
  int level = 0;
  getIntegerProperty("device.accessibility.qs_speed", &level);
  return isLevel(level) ? level : kDefaultLevel;
}

int qs_flite_tts_file(const std::string& text, const std::string& path, int /*reserved*/,
                      const std::atomic<bool>* stop) {
  cst_voice* const chosen = fileVoice();
  if (chosen == nullptr) {
    syslog(LOG_DEBUG, "%s: voice is NULL\n", "qs_flite_tts_file");
    return 0;
  }
  FileStop fileStop{stop};
  QS_StreamUserData userData;
  userData.owner = &fileStop;
  userData.abandoned = FileStop::wantedBy;
  const Job job{.voice = chosen,
                .stretch = stretchOf(qs_fetch_speed(nullptr)),
                .callback = FileStop::onChunk,
                .userData = &userData,
                .wantWave = true,
                .toFile = true};
  const Wave wave = speakText(job, text.c_str());
  if (!wave || fileStop.wanted()) return -2;
  const int failure = path.empty() ? 0 : saveWaveFile(*wave, path);
  if (failure != 0)
    syslog(LOG_ERR, "%s: cannot write %s: %s", "qs_flite_tts_file", path.c_str(),
           std::generic_category().message(failure).c_str());
  return 0;
}

Wave qs_flite_tts_stream(const char* text, StreamCallback callback, QS_StreamUserData* userData,
                         bool wantWave) {
  cst_voice* const chosen = qs_fetch_voice(userData != nullptr ? userData->voice : 0);
  if (chosen == nullptr) {
    syslog(LOG_DEBUG, "%s: voice is NULL\n", "qs_flite_tts_stream");
    return nullptr;
  }
  const Job job{.voice = chosen,
                .stretch = stretchOf(qs_fetch_speed(userData)),
                .callback = callback,
                .userData = userData,
                .wantWave = wantWave,
                .toFile = false};
  Wave wave = speakText(job, text);
  return wantWave ? std::move(wave) : nullptr;
}

}  // namespace qs_ns
