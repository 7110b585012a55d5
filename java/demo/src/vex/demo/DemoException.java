package vex.demo;

/** Ends the demo; the message is for its user. */
class DemoException extends Exception {
    private static final long serialVersionUID = 1;

    DemoException(String message) {
        super(message);
    }

    /** The command line cannot be understood. */
    static class Usage extends DemoException {
        private static final long serialVersionUID = 1;

        Usage(String message) {
            super(message);
        }
    }
}
