package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** A change of the public classes is seen. */
@Tag("client")
class PublicApiTest {
    @Test
    void theListingIsUpToDate() throws Exception {
        String kept = Files.readString(Path.of(System.getProperty("vex.test.api")));
        assertEquals(kept, PublicApi.listing(), "The public API is not the one in tests/jni/java/api.txt. Every user of"
            + " the jar sees such a change. If it is meant, renew the listing with\n"
            + "java -Djava.library.path=build/release/lib -cp build/release/java/tavclientjni.jar:"
            + "build/release/tests/jni/java/tavclientjni-tests.jar vex.client.PublicApi >tests/jni/java/api.txt\n");
    }
}
