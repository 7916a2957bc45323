#include "tessel/base/VelkorPseudoReaderWriterLock.h"

CVelkorPseudoReaderWriterLock::~CVelkorPseudoReaderWriterLock() = default;
