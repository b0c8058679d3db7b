// Placeholder until the agent lands.
#include <Velta/VeRT.h>
