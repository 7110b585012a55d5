package vex.jni;

/** The memory that malloc has given out in this process. The resident memory also has what malloc keeps for later. */
final class MallocInUse {
    static {
        System.load(System.getProperty("vex.test.malloc-in-use"));
    }

    private MallocInUse() {}

    static native long bytes();
}
