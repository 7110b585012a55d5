package vex.client;

/**
 * What a {@link SigningClient} holds open, until it is closed and its last call has ended. Does not refer to the
 * client, which would then stay reachable for the reaper.
 */
final class ClientGate extends CallGate implements Runnable {
    private final Session session;
    private final StampStore stamps;  // may be null

    ClientGate(Session session, StampStore stamps) {
        this.session = session;
        this.stamps = stamps;
    }

    @Override
    public void run() {
        close();
    }

    @Override
    void release() {
        session.close();
        if (stamps != null) {
            stamps.close();
        }
    }
}
