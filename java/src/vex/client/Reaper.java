package vex.client;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.security.AccessController;
import java.security.PrivilegedAction;
import java.util.HashSet;
import java.util.Set;

/**
 * Closes the sessions whose owners became unreachable without closing them. Its daemon thread lives only while there
 * are open sessions, and holds on to nothing of the code that started it, so that a class loader that is done with this
 * package can be collected. Any thread may call any method.
 */
final class Reaper {
    private static final ReferenceQueue<Object> QUEUE = new ReferenceQueue<>();
    private static final Set<Ticket> OPEN = new HashSet<>();  // guarded by itself, as the next
    private static boolean running;

    private Reaper() {}

    /** Stands for an owner; knows its session. */
    static final class Ticket extends PhantomReference<Object> {
        private final Session session;

        private Ticket(Object owner, Session session) {
            super(owner, QUEUE);
            this.session = session;
        }

        /** Closes the session, for the owner or instead of it. */
        void close() {
            session.close();
            synchronized (OPEN) {
                if (OPEN.remove(this) && OPEN.isEmpty()) {
                    enqueue();  // wakes the thread, which has nothing left to do
                }
            }
        }
    }

    /** The session is closed with the ticket, at the latest some time after the owner became unreachable. */
    static Ticket register(Object owner, Session session) {
        Ticket ticket = new Ticket(owner, session);
        synchronized (OPEN) {
            OPEN.add(ticket);
            if (!running) {
                startThread();
                running = true;
            }
        }
        return ticket;
    }

    /** True while the thread is there, for tests. */
    static boolean isRunning() {
        synchronized (OPEN) {
            return running;
        }
    }

    private static void run() {
        while (true) {
            try {
                ((Ticket) QUEUE.remove()).close();
            } catch (InterruptedException e) {
                // Nobody has a reason to interrupt it; sessions would stay open if it ended.
            }
            synchronized (OPEN) {
                if (OPEN.isEmpty()) {
                    running = false;
                    return;
                }
            }
        }
    }

    /** Privileged, so that the thread inherits none of the callers' protection domains, and with them their loaders. */
    private static void startThread() {
        AccessController.doPrivileged((PrivilegedAction<Void>) () -> {
            Thread thread = newThread(Reaper::run, "vex.client reaper");
            thread.setDaemon(true);
            thread.setContextClassLoader(null);
            thread.start();
            return null;
        });
    }

    /** From Java 9 on without the inheritable thread locals of the calling thread, which may hold on to anything. */
    private static Thread newThread(Runnable body, String name) {
        try {
            return Thread.class
                .getConstructor(ThreadGroup.class, Runnable.class, String.class, long.class, boolean.class)
                .newInstance(null, body, name, 0L, false);
        } catch (ReflectiveOperationException e) {
            return new Thread(body, name);
        }
    }
}
