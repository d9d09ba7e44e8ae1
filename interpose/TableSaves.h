#pragma once

// For the programs that make the add-in's saves safe; see TableSaves.cpp.

// Has `listener` called whenever the system fails to let the add-in read its table, on the thread that
// tried: the add-in has no tasks from then on, whereas the file has. null: nobody.
void SetReadFailureListener(void (*listener)());
