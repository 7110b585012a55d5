import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import vex.client.SigningClient;

/** Signs letter.txt of its state directory over and over. The file "count" there says how often it has. */
public final class Service {
    private Service() { }

    public static void main(String[] args) throws Exception {
        Path directory = Paths.get(System.getenv("STATE_DIRECTORY"));
        byte[] letter = Files.readAllBytes(directory.resolve("letter.txt"));
        try (SigningClient client = SigningClient.store(System.getenv("APP_STORE")).open()) {
            for (long count = 1; ; ++count) {
                replace(directory.resolve("letter.p7s"), client.signCmsDetached(letter));
                replace(directory.resolve("count"), (count + "\n").getBytes("US-ASCII"));
                Thread.sleep(20);
            }
        }
    }

    private static void replace(Path file, byte[] content) throws Exception {
        Path beside = file.resolveSibling(file.getFileName() + ".new");
        Files.write(beside, content);
        Files.move(beside, file, StandardCopyOption.ATOMIC_MOVE);
    }
}
