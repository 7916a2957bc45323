#include "tessel/threads/ISyncGuard.h"

ISyncGuard::~ISyncGuard() = default;
