#ifndef GAKPPC_RULES_H
#define GAKPPC_RULES_H

#include "diagnosis.h"

// Each judges one part of the facts and adds what it finds. They do not depend on each other.
namespace tools {

// Whether the user can connect, and why not: always one finding.
void JudgeConnection(const Facts& facts, Diagnosis& diagnosis);

// The parent of the socket directory.
void JudgeParent(const Facts& facts, Diagnosis& diagnosis);

// The socket directory: what is there, who may write to it, its file system.
void JudgeDirectory(const Facts& facts, Diagnosis& diagnosis);

// The socket file, and the one that a tap saves.
void JudgeSocket(const Facts& facts, Diagnosis& diagnosis);
void JudgeTap(const Facts& facts, Diagnosis& diagnosis);

// The process that serves, and others that have lost their place.
void JudgeDaemon(const Facts& facts, Diagnosis& diagnosis);

// "mode 0350, krova:krova".
std::string Describe(const FileInfo& file);

// "process 812 (gakppcd)".
std::string Describe(const ProcessInfo& process);

}  // namespace tools

#endif
