#pragma once

#include <functional>
#include <optional>

#include "ravctl/answer/output.h"
#include "ravctl/tree/capture.h"

// Answers of commands that a running machine alone can give, as files of a bundle: "/ravctl/net-list.json" is the
// answer whose schema is ravctl/net-list, as --json prints it.
namespace ravctl {

// Captures one; the reading has ten seconds. What fails is noted as missing.
void CaptureAnswer(const Schema& schema, const std::function<Json()>& read, Capture& capture);

// Whether this process has a captured tree with such answers as its root.
bool HasCapturedAnswers();

// The data of the captured answer of the tree that is the root. None when the tree does not hold it; throws
// CommandError (damaged) when it is not what the schema says.
std::optional<Json> FindCapturedAnswer(const Schema& schema);
// The same for a command whose answer it is: warns that it is of the time of the capture. Throws CommandError (missing)
// when the tree does not hold it.
Json CapturedAnswer(const Schema& schema, Output& out);

}  // namespace ravctl
