// The connection that carries framed messages. Programs that open one bring their own class; here
// it is only a name that CTransfer hands back to its user.
#pragma once

class CSocket;
