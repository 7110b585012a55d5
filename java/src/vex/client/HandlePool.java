package vex.client;

import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.Semaphore;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The handles of one opened store. Each call has a handle for itself. A call that finds none idle opens another one, up
 * to one for each processor, or waits for its turn. Any thread may call any method; nothing here blocks the carrier of
 * a virtual thread while it waits.
 *
 * <p>All handles are finalized together: when the pool is closed, or by the last of the calls that are in progress
 * then.
 */
final class HandlePool extends CallGate {
    /** A call, for which no other call uses the handle. */
    interface Call<T> {
        T with(Handle handle) throws SigningException;
    }

    private final Handle first;
    /** One for each handle that is idle or may still be opened. Fair: calls get them in the order of their arrival. */
    private final Semaphore permits;
    private final ReentrantLock lock = new ReentrantLock();
    private final List<Handle> opened = new ArrayList<>();  // guarded by lock
    private final Deque<Handle> idle = new ArrayDeque<>();  // guarded by lock; the one used last is the first

    /** @param most the number of handles that may be open at once */
    HandlePool(Handle first, int most) {
        this.first = first;
        permits = new Semaphore(most, true);
        opened.add(first);
        idle.add(first);
    }

    /** One handle if the toolkit cannot open another one of the same store. */
    static HandlePool of(Handle first) {
        return new HandlePool(first, Toolkit.sharesStores() ? Runtime.getRuntime().availableProcessors() : 1);
    }

    /**
     * Makes a call, if possible with a handle that has these settings already. The call sets those that it needs.
     *
     * @throws IllegalStateException if the pool is closed
     */
    <T> T call(Selection selection, String digest, Call<T> call) throws SigningException {
        enter();
        try {
            return callEntered(selection, digest, call);
        } finally {
            leave();
        }
    }

    /** The same between {@link #enter} and {@link #leave}: it succeeds although the pool was closed meanwhile. */
    <T> T callEntered(Selection selection, String digest, Call<T> call) throws SigningException {
        Handle handle = take(selection, digest);
        try {
            return call.with(handle);
        } finally {
            putBack(handle);
        }
    }

    /** Waits for a permit, and so for a handle: as many handles are in use as permits are taken. */
    private Handle take(Selection selection, String digest) throws SigningException {
        permits.acquireUninterruptibly();
        Handle handle = null;
        try {
            handle = takeIdle(selection, digest);
            if (handle == null) {
                handle = openAnother();
            }
            return handle;
        } finally {
            if (handle == null) {
                permits.release();
            }
        }
    }

    /** Null: there is none. */
    private Handle takeIdle(Selection selection, String digest) {
        lock.lock();
        try {
            Handle best = idle.peekLast();  // so that the settings of those used last stay
            for (Handle handle : idle) {
                if (handle.has(selection)) {
                    best = handle;
                    if (handle.hasDigest(digest)) {
                        break;
                    }
                }
            }
            idle.remove(best);
            return best;
        } finally {
            lock.unlock();
        }
    }

    private Handle openAnother() throws SigningException {
        Handle handle = first.another();
        lock.lock();
        try {
            opened.add(handle);
            return handle;
        } finally {
            lock.unlock();
        }
    }

    private void putBack(Handle handle) {
        lock.lock();
        try {
            idle.addFirst(handle);
        } finally {
            lock.unlock();
        }
        permits.release();
    }

    /** Without a copy, which takes memory: no call can open a handle any more. */
    @Override
    void release() {
        lock.lock();
        try {
            for (Handle handle : opened) {
                handle.close();
            }
        } finally {
            lock.unlock();
        }
    }

    /** The number of calls that wait for a handle. */
    int waiting() {
        return permits.getQueueLength();
    }

    /** The open handles. */
    List<Handle> handles() {
        lock.lock();
        try {
            return new ArrayList<>(opened);
        } finally {
            lock.unlock();
        }
    }
}
