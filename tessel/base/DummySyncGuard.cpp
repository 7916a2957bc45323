#include "tessel/base/DummySyncGuard.h"

CDummySyncGuard::~CDummySyncGuard() = default;
