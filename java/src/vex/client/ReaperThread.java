package vex.client;

/**
 * Makes the reaper's thread. From Java 9 on, the thread does not inherit the thread locals of its caller, which may
 * refer to anything. The jar has another form of this class for Java 9 and newer.
 */
final class ReaperThread {
    private ReaperThread() {}

    /** The reflection is for programs that have put these classes into a jar of their own, without the other form. */
    static Thread of(Runnable body, String name) {
        try {
            return Thread.class
                .getConstructor(ThreadGroup.class, Runnable.class, String.class, long.class, boolean.class)
                .newInstance(null, body, name, 0L, false);
        } catch (ReflectiveOperationException e) {
            return new Thread(body, name);
        }
    }
}
