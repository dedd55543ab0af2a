// Process entry: placeholder until the service wrapper lands.
#include "logger/korb_log.h"

int main()
{
    return 0;
}
