package vex.client;

/** For Java 9 and newer, where the constructor exists. The first use of reflection takes longer than ten signatures. */
final class ReaperThread {
    private ReaperThread() {}

    static Thread of(Runnable body, String name) {
        return new Thread(null, body, name, 0, false);
    }
}
