#include "addin/CAddInInterface.h"

CAddInInterface::CAddInInterface(const char* addInName) : CThread(addInName), name(addInName) {}

void CAddInInterface::Stop() {
    CThread::Stop();
}
