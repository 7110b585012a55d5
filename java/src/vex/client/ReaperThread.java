package vex.client;

import java.security.PrivilegedAction;

/** Starts the reaper's thread. */
final class ReaperThread implements PrivilegedAction<Void> {
    private static final String NAME = "vex.client reaper";

    private final Runnable body;

    private ReaperThread(Runnable body) {
        this.body = body;
    }

    /** Privileged: otherwise the thread would keep the callers' protection domains, and with them their loaders. */
    @SuppressWarnings("removal")  // does not reach an import, so the class is named in full
    static void start(Runnable body) {
        java.security.AccessController.doPrivileged(new ReaperThread(body));
    }

    @Override
    public Void run() {
        Thread thread = newThread();
        thread.setDaemon(true);
        thread.setContextClassLoader(null);
        thread.start();
        return null;
    }

    /** From Java 9 on, it does not inherit its caller's thread locals, which may be anything. */
    private Thread newThread() {
        try {
            return new Thread(null, body, NAME, 0, false);
        } catch (NoSuchMethodError e) {  // Java 8
            return new Thread(body, NAME);
        }
    }
}
