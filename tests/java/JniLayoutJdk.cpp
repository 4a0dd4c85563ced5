// The JDK's jni.h, described.
#include NFSLIB_JDK_HEADER
#ifdef NFSLIB_JNI_H
#error "this must be the JDK's jni.h"
#endif

#define DESCRIBE DescribeJdkHeader
#include "JniLayout.inc"
