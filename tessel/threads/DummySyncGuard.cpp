#include "tessel/threads/DummySyncGuard.h"

CDummySyncGuard::~CDummySyncGuard() = default;
