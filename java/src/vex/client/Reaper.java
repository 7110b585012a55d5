package vex.client;

import java.lang.ref.PhantomReference;
import java.lang.ref.ReferenceQueue;
import java.util.HashSet;
import java.util.Set;

/**
 * Closes the sessions of owners that became unreachable without being closed. Its daemon thread ends some time after
 * the last session was closed, and it keeps no reference to the code that started it. So the class loader of this
 * package can be collected. Any thread may call any method.
 */
final class Reaper {
    /** How long the thread waits for the next session: programs with short sessions should not start many threads. */
    private static final long LINGER_MILLISECONDS = 1000;
    private static final long FOREVER = 0;

    private static final ReferenceQueue<Object> QUEUE = new ReferenceQueue<>();
    private static final Set<Ticket> OPEN = new HashSet<>();  // guarded by itself
    private static boolean running;                           // guarded by OPEN

    private Reaper() {}

    /** Stands for an owner, without keeping it reachable, and knows how its session is closed. */
    static final class Ticket extends PhantomReference<Object> {
        private final Runnable closing;

        private Ticket(Object owner, Runnable closing) {
            super(owner, QUEUE);
            this.closing = closing;
        }

        /** Closes the session. Called by the owner, or by the thread after the owner became unreachable. */
        void close() {
            try {
                closing.run();
            } finally {
                synchronized (OPEN) {
                    if (OPEN.remove(this) && OPEN.isEmpty()) {
                        enqueue();  // wakes the thread, which then waits for the next session
                    }
                }
            }
        }
    }

    /**
     * Closes the session when the ticket is closed, or some time after the owner became unreachable.
     *
     * @param closing may run twice. It keeps neither the owner reachable nor anything else that the program gave
     */
    static Ticket register(Object owner, Runnable closing) {
        Ticket ticket = new Ticket(owner, closing);
        synchronized (OPEN) {
            OPEN.add(ticket);
            if (!running) {
                ReaperThread.start(new Body());
                running = true;
            }
        }
        return ticket;
    }

    private static void reap() {
        for (boolean lingers = false;; lingers = isIdle()) {
            Ticket ticket = await(lingers ? LINGER_MILLISECONDS : FOREVER);
            if (ticket != null) {
                close(ticket);
            } else if (lingers && mayEnd()) {
                return;
            }
        }
    }

    private static void close(Ticket ticket) {
        try {
            ticket.close();
        } catch (RuntimeException | Error e) {
            // There is nobody to tell, and other sessions still have to be closed.
        }
    }

    /** Null: the time is over, or the thread was interrupted. If it ended then, sessions could stay open. */
    private static Ticket await(long milliseconds) {
        try {
            return (Ticket) QUEUE.remove(milliseconds);
        } catch (InterruptedException e) {
            return null;
        }
    }

    private static boolean isIdle() {
        synchronized (OPEN) {
            return OPEN.isEmpty();
        }
    }

    private static boolean mayEnd() {
        synchronized (OPEN) {
            running = !OPEN.isEmpty();
            return !running;
        }
    }

    private static final class Body implements Runnable {
        @Override
        public void run() {
            reap();
        }
    }
}
