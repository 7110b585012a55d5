package vex.bench;

import java.nio.file.Paths;
import vex.client.SigningClient;
import vex.jni.TAVClientJNI;

/** The first signature of a fresh JVM. Arguments: PKCS #12 file, PIN, text. */
final class FirstSignature {
    private FirstSignature() {}

    public static void main(String[] arguments) throws Exception {
        Stages.end("JVM");
        new TAVClientJNI();
        Stages.end("library");
        SigningClient client =
            SigningClient.file(Paths.get(arguments[0])).pin(arguments[1].toCharArray()).open();
        Stages.end("store");
        Stages.endWith(client.signRaw(arguments[2]));
    }
}
