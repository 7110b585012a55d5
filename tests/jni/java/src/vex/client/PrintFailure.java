package vex.client;

/** Opens a store that cannot be opened, and prints the reason and the message. */
final class PrintFailure {
    private PrintFailure() {}

    /** @param args the store's URI and perhaps a PIN */
    public static void main(String[] args) {
        SigningClient.Builder builder = SigningClient.store(args[0]);
        if (args.length > 1) {
            builder.pin(args[1].toCharArray());
        }
        try {
            builder.open().close();
            System.out.println("opened");
        } catch (SigningException e) {
            System.out.println(e.reason() + ": " + e.getMessage());
        }
    }
}
