#include "vex_jni_TAVClientJNI.h"
