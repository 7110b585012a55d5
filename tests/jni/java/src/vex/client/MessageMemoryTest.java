package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Signature;
import java.security.SignatureException;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.Run;

/** A program may go on after an OutOfMemoryError. What it then signs has to be all that it gave. */
@Tag("client")
class MessageMemoryTest {
    @TempDir
    private static Path directory;

    @Test
    void aMessageWithAHoleIsNotSigned() throws Exception {
        Path store = directory.resolve("ed25519.pem");
        OpenSslKeys.ED25519.write(store);
        String jars = System.getProperty("vex.test.jar") + ":"
            + Path.of(MessageMemoryTest.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        Run run = Run.of(new ProcessBuilder(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED", "-Xmx128m",
            "-XX:+UseSerialGC", "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", jars,
            SignsAfterOutOfMemory.class.getName(), store.toString())).succeeded();
        String refused = "Out of memory: a part of the data to sign is missing\n";
        assertEquals("no memory\n" + refused.repeat(4) + "64\n", run.output(), run.errors());
    }

    /** Prints what the calls throw after an update that needs more memory than there is, and a signature's length. */
    static final class SignsAfterOutOfMemory {
        private interface Call {
            void run() throws SignatureException;
        }

        public static void main(String[] args) throws Exception {
            Provider provider = new SigningProvider();
            KeyStore store = KeyStore.getInstance(SigningProvider.KEY_STORE_TYPE, provider);
            store.load(StoreParameter.file(Path.of(args[0])));
            Signature signer = Signature.getInstance("Ed25519", provider);
            signer.initSign((PrivateKey) store.getKey(store.aliases().nextElement(), null));
            signer.update(new byte[8 << 20]);
            try {
                signer.update(new byte[60 << 20]);  // and as much again for its copy
            } catch (OutOfMemoryError e) {
                System.out.println("no memory");
            }
            for (Call call : new Call[] {() -> signer.update((byte) 1), () -> signer.update(new byte[0]),
                    () -> signer.update(new byte[1]), signer::sign}) {
                try {
                    call.run();
                } catch (SignatureException e) {
                    System.out.println(e.getMessage());
                }
            }
            signer.update(ByteBuffer.wrap(new byte[1]));
            System.out.println(signer.sign().length);
        }
    }
}
