#include "tessel/base/ISyncGuard.h"

ISyncGuard::~ISyncGuard() = default;
