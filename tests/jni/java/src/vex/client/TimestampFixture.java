package vex.client;

import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.List;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.io.TempDir;
import vex.jni.TestStore;

/** An authority in this process, and a store whose signatures it stamps. */
abstract class TimestampFixture {
    static final String TEXT = "I owe you 100 €.";
    static final byte[] TEXT_BYTES = TEXT.getBytes(StandardCharsets.UTF_8);

    static LocalAuthority authority;
    static TestStore.Identity identity;

    @TempDir
    Path directory;

    Path store;

    @BeforeAll
    static void createAuthority() throws Exception {
        authority = new LocalAuthority();
        identity = TestStore.identity("secp256r1", "CN=Signer", 7, 30, 0);
    }

    @BeforeEach
    void writeStore() throws Exception {
        store = directory.resolve("keys.pem");
        TestStore.writePem(store, List.of(identity));
    }

    SigningClient open(TimestampSource source) throws SigningException {
        return SigningClient.file(store).timestamp(source).open();
    }
}
