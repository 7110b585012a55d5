package vex.client;

import java.nio.file.Path;

/** Opens clients for the store in a file, with and without time stamps, and prints what becomes of them. */
final class WithoutStamps {
    private WithoutStamps() {}

    public static void main(String[] args) throws Exception {
        Path file = Path.of(args[0]);
        TimestampSource source = request -> {
            System.out.println("the source was asked");
            return request;
        };
        try {
            SigningClient.file(file).timestamp(source).open().close();
            System.out.println("opened");
        } catch (SigningException e) {
            System.out.println(e.reason() + ": " + e.getMessage());
        }
        try (SigningClient client = SigningClient.file(file).open()) {
            System.out.println("without stamps: " + (client.signCmsDetached("text").length > 0));
        }
    }
}
