#ifndef KERROW_SPEAKER_CLUSTER_IDENTITY_H_
#define KERROW_SPEAKER_CLUSTER_IDENTITY_H_

#include <map>
#include <string>
#include <vector>

#include "diarization/diarization_backend.h"
#include "events/event_emitter.h"
#include "speaker/speaker_identifier.h"

namespace kerrow {

// Names the diarization clusters: each label is identified once, on audio taken
// from its longest turns (at most max_seconds of it; 0 or less: no cap). Returns
// label -> enrolled name for the matched labels only. When scores is given it
// receives the score of every label that had audio, matched or not. One
// "[SPEAKER_ID] " log line per such label goes to emitter when it is given.
std::map<std::string, std::string> BuildClusterIdentityMap(
    const SpeakerIdentifier* identifier, const std::vector<float>& samples, int sample_rate,
    double max_seconds, const std::vector<DiarizationSegment>& turns, EventEmitter* emitter,
    std::map<std::string, float>* scores);

// Replaces the label of every turn whose cluster was matched by the enrolled
// name; unmatched turns keep their diarization label. Times and order never change.
void IdentifyAndRelabelSpeakers(const SpeakerIdentifier* identifier,
                                const std::vector<float>& samples, int sample_rate,
                                double max_seconds, std::vector<DiarizationSegment>* turns,
                                EventEmitter* emitter);

}  // namespace kerrow

#endif  // KERROW_SPEAKER_CLUSTER_IDENTITY_H_
