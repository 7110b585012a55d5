package vex.client;

/** Releases what a {@link SigningClient} holds. Does not refer to the client, which would then stay reachable. */
final class SigningClientRelease implements Runnable {
    private final Session session;
    private final StampStore stamps;  // may be null

    SigningClientRelease(Session session, StampStore stamps) {
        this.session = session;
        this.stamps = stamps;
    }

    @Override
    public void run() {
        session.close();
        if (stamps != null) {
            stamps.close();
        }
    }
}
