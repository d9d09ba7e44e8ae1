#pragma once

class CProgramOutput;

// Has programs that are started from now on write where `output` says; null: where the host does.
// The caller keeps it alive. To be called while no program can be started.
void SetProgramOutput(const CProgramOutput* output);
