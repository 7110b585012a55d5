import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardCopyOption;
import vex.jni.TAVClientJNI;

/** Signs letter.txt of its state directory over and over. The file "count" there says how often it has. */
public final class Service {
    private Service() { }

    public static void main(String[] args) throws Exception {
        TAVClientJNI natives = new TAVClientJNI();
        Path directory = Paths.get(System.getenv("STATE_DIRECTORY"));
        String letter = new String(Files.readAllBytes(directory.resolve("letter.txt")), StandardCharsets.UTF_8);
        long handle = natives.Initialize(null, System.getenv("APP_STORE"));
        for (long count = 1; ; ++count) {
            String signature = natives.P7SignString(handle, letter, 1, 1);
            if (signature == null) {
                throw new IllegalStateException(natives.GetLastError(handle) + " " + natives.GetLastErrorMessage(handle));
            }
            replace(directory.resolve("letter.p7s"), signature);
            replace(directory.resolve("count"), count + "\n");
            Thread.sleep(20);
        }
    }

    private static void replace(Path file, String content) throws Exception {
        Path beside = file.resolveSibling(file.getFileName() + ".new");
        Files.write(beside, content.getBytes(StandardCharsets.US_ASCII));
        Files.move(beside, file, StandardCopyOption.ATOMIC_MOVE);
    }
}
