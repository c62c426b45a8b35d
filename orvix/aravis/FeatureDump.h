// Reading and writing the camera's GenICam features for configuration files: every feature that
// is implemented, available and writable, those behind a selector once per selector value.
// Transport-layer features (packet size, IP configuration, ...) belong to the link, not to the
// camera's configuration, and are left out.
// Thread: the caller serialises access to the connection.
#pragma once

#include <vector>

#include "ConfigurationDump.h"
#include "Connection.h"
#include "Status.h"

namespace orvix::aravis {

// The camera's current feature values. Selectors are put back as they were.
Status collectFeatures(Connection& connection, std::vector<FeatureValue>& features);

// Fails with 2 naming the first feature (and its line) this camera does not have as a value it
// can set, before anything is written.
Status checkFeatures(Connection& connection, const std::vector<FeatureValue>& features);

// Writes the values; features that depend on others (an offset on the width, ...) are tried
// again until nothing more succeeds. Selectors end at their written values. Fails with 4 naming
// the first value the camera refused.
Status writeFeatures(Connection& connection, const std::vector<FeatureValue>& features);

}  // namespace orvix::aravis
