#include "HvSipLoadTransport.h"

HvSipLoadSink::~HvSipLoadSink() = default;

HvSipLoadTransport::~HvSipLoadTransport() = default;
