#include "tessel/threads/VelkorPseudoReaderWriterLock.h"

CVelkorPseudoReaderWriterLock::~CVelkorPseudoReaderWriterLock() = default;
