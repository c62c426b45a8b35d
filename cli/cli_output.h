// Output helpers shared by the commands.
#pragma once

#include <QJsonArray>
#include <QJsonObject>

#include "cli/cli_session.h"

namespace lumetra::cli {

void PrintJson(const QJsonObject& object);
// The log lines of the session, for --json.
QJsonArray LogArray(const Session& session);
// Prints the board's parameter cache as text or JSON (with the log lines).
void PrintCache(const Session& session);
// Reports that no board could be opened; returns the exit code.
int NoBoard(Session& session);

}  // namespace lumetra::cli
