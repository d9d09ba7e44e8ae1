#pragma once

class CProgramOutput;

// From now on the host launches what the add-in wants launched, and programs write where `output` says;
// null: where the host does. The caller keeps it alive. To be called while no program can be launched.
void TakeLaunches(const CProgramOutput* output);
