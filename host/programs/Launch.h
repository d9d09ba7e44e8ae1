#pragma once

class CProgramOutput;

// Takes over the launches of the add-in (interpose/Launch.h): from now on its calls of
// posix_spawn() and waitpid() are handled here, and programs write where `output` decides; null:
// where the host does. The caller keeps `output` alive. To be called while no program can be
// launched, since there is no lock.
void HandleLaunches(const CProgramOutput* output);
