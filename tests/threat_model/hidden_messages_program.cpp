// A program with a copy of the generated messages that the dynamic linker cannot see. Registering the schema a second
// time ends it before main.

#include "ppc.h"
#include "qel_message.pb.h"

int main()
{
    const qel::PPCMessage msg;
    return ppcInit() == 0 && msg.ByteSizeLong() == 0 ? 0 : 1;
}
