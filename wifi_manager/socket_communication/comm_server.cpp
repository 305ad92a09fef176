#include "socket_communication.h"
