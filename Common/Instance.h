// The shared build's single-instance listener: the one resident agent of a machine holds this TCP
// port on 127.0.0.1, and a connection to it ends that agent. (The per-user build uses a socket in
// the data folder instead: InstanceSocket in FileLayout.h.)
#pragma once

#include <QtGlobal>

constexpr quint16 kAgentPort = 31334;
